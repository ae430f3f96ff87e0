#include <errno.h>
#include <orvhost/host.h>
#include <poll.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "HostInternal.h"

std::string orvhost_path(const char* devicePath) {
    std::string path = devicePath ? devicePath : "";
    const char* env = getenv("ORV_ROOT");
    std::string root = env ? env : "";
    while (!root.empty() && root.back() == '/') root.pop_back();
    if (root.empty()) return path;
    if (!path.empty() && path.front() != '/') root += '/';
    return root + path;
}

namespace orvhost {

short waitFor(int fd, short events, int timeoutMs) {
    pollfd p = {fd, events, 0};
    int r;
    do {
        r = poll(&p, 1, timeoutMs);
    } while (r < 0 && errno == EINTR);
    return r > 0 ? p.revents : 0;
}

bool writeAll(int fd, const void* data, size_t len) {
    const char* p = static_cast<const char*>(data);
    while (len > 0) {
        ssize_t n = write(fd, p, len);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

bool makeDirs(const std::string& dir) {
    size_t pos = 0;
    while (pos != std::string::npos) {
        pos = dir.find('/', pos + 1);
        std::string partial = dir.substr(0, pos);
        if (mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) return false;
    }
    struct stat st;
    return stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool fillAddress(const std::string& path, sockaddr_un* addr, socklen_t* addrLen) {
    memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_LOCAL;
    if (path.empty() || path.size() >= sizeof(addr->sun_path)) return false;
    memcpy(addr->sun_path, path.data(), path.size());
    *addrLen = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1);
    return true;
}

}  // namespace orvhost
