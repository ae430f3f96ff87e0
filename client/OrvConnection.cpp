#include "include/orv/OrvConnection.h"

#include <cutils/sockets.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

namespace {

long long nowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

}  // namespace

OrvConnection::~OrvConnection() {
    close();
}

bool OrvConnection::open(const std::string& path, std::string& error) {
    close();
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    int r = -1;
    if (fd >= 0) {
        r = path.empty() ? socket_local_client_connect(
                               fd, orv::kSocketName, ANDROID_SOCKET_NAMESPACE_RESERVED, SOCK_STREAM)
                         : socket_local_client_connect(
                               fd, path.c_str(), ANDROID_SOCKET_NAMESPACE_FILESYSTEM, SOCK_STREAM);
    }
    // Writes block from here on: a frame is either written whole or the connection is dropped.
    if (r >= 0 && fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) == 0) {
        mFd = fd;
        mPending.clear();
        return true;
    }
    int saved = errno;
    if (fd >= 0) ::close(fd);
    std::string where = path.empty() ? "the control socket \"orvd\"" : "\"" + path + "\"";
    error = "cannot connect to " + where + " (" + strerror(saved) + "): is orvd running?";
    return false;
}

void OrvConnection::close() {
    if (mFd >= 0) ::close(mFd);
    mFd = -1;
}

void OrvConnection::shutdown() {
    if (mFd >= 0) ::shutdown(mFd, SHUT_RDWR);
}

void OrvConnection::setSendTimeout(int ms) {
    struct timeval tv = {ms / 1000, (ms % 1000) * 1000};
    if (mFd >= 0) setsockopt(mFd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
}

bool OrvConnection::send(std::string_view bytes, std::string& error) {
    while (!bytes.empty()) {
        ssize_t n = ::send(mFd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            error = std::string("cannot send to orvd: ") +
                    (n < 0 ? strerror(errno) : "the connection is closed");
            return false;
        }
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

OrvConnection::Result OrvConnection::readReply(int timeoutMs, orv::Reply& reply) {
    const long long deadline = nowMs() + timeoutMs;
    for (;;) {
        if (orv::takeReply(mPending, reply)) return OK;
        long long left = deadline - nowMs();
        if (left <= 0) return TIMED_OUT;
        struct pollfd p = {mFd, POLLIN, 0};
        int r = poll(&p, 1, static_cast<int>(left));
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) return FAILED;
        if (r == 0) return TIMED_OUT;
        char buf[4096];
        ssize_t n = read(mFd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return FAILED;
        if (n == 0) return CLOSED;
        mPending.append(buf, static_cast<size_t>(n));
    }
}
