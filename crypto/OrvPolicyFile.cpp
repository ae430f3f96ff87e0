#include "crypto/OrvPolicyFile.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
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

// Writes all of `data` to the regular file open at `fd`, then closes it; `sync` flushes it to
// storage first. errno tells why on failure.
static bool writeAndClose(int fd, const void* data, size_t size, bool sync) {
    struct stat st;
    bool ok = fstat(fd, &st) == 0;
    if (ok && !S_ISREG(st.st_mode)) {
        errno = EINVAL;
        ok = false;
    }
    const char* p = static_cast<const char*>(data);
    while (ok && size > 0) {
        ssize_t n = ::write(fd, p, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = EIO;
            ok = false;
            break;
        }
        p += n;
        size -= static_cast<size_t>(n);
    }
    if (ok && sync && fsync(fd) != 0) ok = false;
    int err = errno;
    // close() reports what a delayed write-back could not do (NFS, full quota).
    if (close(fd) != 0 && ok) return false;
    errno = err;
    return ok;
}

bool OrvPolicyFile::write(const char* path, const void* data, size_t size, int mode) {
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, mode);
    if (fd < 0) return false;
    return writeAndClose(fd, data, size, false);
}

bool OrvPolicyFile::store(const char* path, const void* data, size_t size) {
    const std::string target = path ? path : "";
    const std::string temp = storeTemp(target.c_str());
    const size_t slash = target.rfind('/');
    const std::string dir = slash == std::string::npos ? "."
                            : slash == 0               ? "/"
                                                       : target.substr(0, slash);
    int fd =
        open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY, 0644);
    bool ok =
        fd >= 0 && writeAndClose(fd, data, size, true) && rename(temp.c_str(), target.c_str()) == 0;
    int err = errno;
    if (!ok) {
        if (fd >= 0) unlink(temp.c_str());
        errno = err;
        return false;
    }
    // The rename is durable once the directory is. It has happened either way: the new file
    // is the stored one now, so a failing flush here cannot undo it and is not a refusal.
    int dirFd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd >= 0) {
        fsync(dirFd);
        close(dirFd);
    }
    return true;
}
