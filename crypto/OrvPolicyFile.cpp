#include "crypto/OrvPolicyFile.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

const char OrvPolicyFile::kCannotOpen[] = "cannot open";

namespace {

// Refuses what is not a regular file or is already known to be too large; `fd` is open.
const char* checkOpened(int fd, size_t cap, size_t& size) {
    struct stat st;
    if (fstat(fd, &st) != 0) return "cannot stat";
    if (!S_ISREG(st.st_mode)) return "not a regular file";
    if (st.st_size < 0 || static_cast<unsigned long long>(st.st_size) > cap) return "too large";
    size = static_cast<size_t>(st.st_size);
    return nullptr;
}

// Reads to the end, but never more than `cap` bytes: a file may grow while it is read, and some
// (procfs, sysfs) report a size of 0 whatever they hold. Room for the size fstat saw is taken
// up front, so a policy is not copied again each time the string doubles.
const char* readAll(int fd, size_t cap, size_t expect, std::string& out) {
    out.clear();
    out.reserve(expect);
    char chunk[16384];
    for (;;) {
        ssize_t n = ::read(fd, chunk, sizeof(chunk));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return "read failed";
        if (n == 0) return nullptr;
        if (static_cast<size_t>(n) > cap - out.size()) return "too large";
        out.append(chunk, static_cast<size_t>(n));
    }
}

}  // namespace

bool OrvPolicyFile::read(const char* path, size_t cap, std::string& out, const char*& reason) {
    reason = nullptr;
    // O_NONBLOCK: opening a FIFO must not wait for a writer.
    int fd = open(path ? path : "", O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        reason = kCannotOpen;
        return false;
    }
    size_t size = 0;
    reason = checkOpened(fd, cap, size);
    if (reason == nullptr) reason = readAll(fd, cap, size, out);
    close(fd);
    if (reason != nullptr) out.clear();
    return reason == nullptr;
}

bool OrvPolicyFile::write(const char* path, const void* data, size_t size) {
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, 0666);
    if (fd < 0) return false;
    struct stat st;
    bool ok = fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    const char* p = static_cast<const char*>(data);
    while (ok && size > 0) {
        ssize_t n = ::write(fd, p, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ok = false;
            break;
        }
        p += n;
        size -= static_cast<size_t>(n);
    }
    return close(fd) == 0 && ok;
}
