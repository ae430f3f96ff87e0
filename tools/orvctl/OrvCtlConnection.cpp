#include "tools/orvctl/OrvCtlConnection.h"

#include <cutils/sockets.h>
#include <errno.h>
#include <poll.h>
#include <stdlib.h>
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

OrvCtlConnection::~OrvCtlConnection() {
    if (mFd >= 0) close(mFd);
}

bool OrvCtlConnection::open(const std::string& path, std::string& error) {
    if (path.empty())
        mFd = socket_local_client("orvd", ANDROID_SOCKET_NAMESPACE_RESERVED, SOCK_STREAM);
    else
        mFd = socket_local_client(path.c_str(), ANDROID_SOCKET_NAMESPACE_FILESYSTEM, SOCK_STREAM);
    if (mFd >= 0) return true;
    std::string where = path.empty() ? "the control socket \"orvd\"" : "\"" + path + "\"";
    error = "cannot connect to " + where + " (" + strerror(errno) + "): is orvd running?";
    return false;
}

bool OrvCtlConnection::sendFrame(const std::string& frame, std::string& error) {
    for (;;) {
        ssize_t n = send(mFd, frame.data(), frame.size(), MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n == static_cast<ssize_t>(frame.size())) return true;
        error = n < 0 ? std::string("cannot send to orvd: ") + strerror(errno)
                      : "orvd took only part of a message";
        return false;
    }
}

OrvCtlConnection::Result OrvCtlConnection::readReply(int timeoutMs, int& code, std::string& text) {
    long long deadline = nowMs() + timeoutMs;
    for (;;) {
        size_t nul = mPending.find('\0');
        if (nul != std::string::npos) {
            std::string reply = mPending.substr(0, nul);
            mPending.erase(0, nul + 1);
            size_t blank = reply.find(' ');
            code = atoi(reply.substr(0, blank).c_str());
            text = blank == std::string::npos ? "" : reply.substr(blank + 1);
            return OK;
        }
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
        mPending.append(buf, n);
    }
}
