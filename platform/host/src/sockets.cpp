#include <cutils/sockets.h>
#include <errno.h>
#include <limits.h>
#include <orvhost/host.h>
#include <poll.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

#include "HostInternal.h"

namespace {

// Fills `addr` for `name` in the namespace; false when the name does not fit or is unknown.
bool makeAddress(const char* name, int namespaceId, sockaddr_un* addr, socklen_t* addrLen) {
    switch (namespaceId) {
        case ANDROID_SOCKET_NAMESPACE_ABSTRACT: {
            memset(addr, 0, sizeof(*addr));
            addr->sun_family = AF_LOCAL;
            // A leading NUL selects Linux's abstract names; the length ends the name.
            size_t nameLen = strlen(name);
            if (nameLen + 1 > sizeof(addr->sun_path)) return false;
            memcpy(addr->sun_path + 1, name, nameLen);
            *addrLen = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + nameLen);
            return true;
        }
        case ANDROID_SOCKET_NAMESPACE_RESERVED:
            return orvhost::fillAddress(orvhost_path(ANDROID_SOCKET_DIR "/") + name, addr, addrLen);
        case ANDROID_SOCKET_NAMESPACE_FILESYSTEM:
            return orvhost::fillAddress(name, addr, addrLen);
        default:
            return false;
    }
}

// An interrupted connect goes on in the background; wait for it instead of connecting twice.
bool finishInterruptedConnect(int fd) {
    if (orvhost::waitFor(fd, POLLOUT) == 0) return false;
    int err = 0;
    socklen_t len = sizeof(err);
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) return false;
    if (err != 0) {
        errno = err;
        return false;
    }
    return true;
}

// The same name, or two names of one file (the root may be spelt differently).
bool samePath(const std::string& a, const std::string& b) {
    if (a == b) return true;
    struct stat sa, sb;
    return lstat(a.c_str(), &sa) == 0 && lstat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev &&
           sa.st_ino == sb.st_ino;
}

}  // namespace

extern "C" int android_get_control_socket(const char* name) {
    if (!name) return -1;
    std::string var = std::string(ANDROID_SOCKET_ENV_PREFIX) + name;
    const char* val = getenv(var.c_str());
    if (!val || *val < '0' || *val > '9') return -1;
    errno = 0;
    char* end = nullptr;
    long fd = strtol(val, &end, 10);
    if (errno != 0 || *end != '\0' || fd < 0 || fd > INT_MAX) return -1;
    // As on the device, only a socket bound at the reserved directory under its own name counts.
    sockaddr_un addr;
    socklen_t len = sizeof(addr);
    if (getsockname(static_cast<int>(fd), reinterpret_cast<sockaddr*>(&addr), &len) != 0 ||
        addr.sun_family != AF_UNIX || len <= offsetof(sockaddr_un, sun_path))
        return -1;
    const size_t pathMax = len - offsetof(sockaddr_un, sun_path);
    const std::string bound(addr.sun_path, strnlen(addr.sun_path, pathMax));
    const std::string reserved = orvhost_path(ANDROID_SOCKET_DIR "/") + name;
    if (bound.empty() || !samePath(bound, reserved)) return -1;
    return static_cast<int>(fd);
}

extern "C" int socket_local_client_connect(int fd, const char* name, int namespaceId, int /*type*/) {
    if (fd < 0 || !name) return -1;
    sockaddr_un addr;
    socklen_t addrLen = 0;
    if (!makeAddress(name, namespaceId, &addr, &addrLen)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), addrLen) == 0) return fd;
    if (errno == EINTR && finishInterruptedConnect(fd)) return fd;
    return -1;
}

extern "C" int socket_local_client(const char* name, int namespaceId, int type) {
    int fd = socket(AF_LOCAL, type | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (socket_local_client_connect(fd, name, namespaceId, type) < 0) {
        int saved = errno;
        close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}
