#define LOG_TAG "SocketClient"
#include <arpa/inet.h>
#include <errno.h>
#include <log/log.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sysutils/SocketClient.h>
#include <unistd.h>

#include <string>

#include "HostInternal.h"

namespace {

// Replies a listener's client has not taken yet; past this the client is cut off.
constexpr size_t kMaxQueuedBytes = 64 * 1024;

// Moves past the first `n` bytes of the vector.
void advance(iovec*& iov, int& iovcnt, size_t n) {
    while (iovcnt > 0 && n >= iov->iov_len) {
        n -= iov->iov_len;
        ++iov;
        --iovcnt;
    }
    if (iovcnt > 0 && n > 0) {
        iov->iov_base = static_cast<char*>(iov->iov_base) + n;
        iov->iov_len -= n;
    }
}

// One sendmsg of the whole vector, riding out EINTR; MSG_NOSIGNAL: a vanished peer yields EPIPE
// instead of killing the daemon.
ssize_t sendv(int fd, iovec* iov, int iovcnt, int flags) {
    msghdr m = {};
    m.msg_iov = iov;
    m.msg_iovlen = static_cast<size_t>(iovcnt);
    ssize_t n;
    do {
        n = sendmsg(fd, &m, flags | MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    return n;
}

}  // namespace

SocketClient::SocketClient(int sock, bool owned) : SocketClient(sock, owned, false) {}

SocketClient::SocketClient(int sock, bool owned, bool useCmdNum)
    : mSocket(sock),
      mSocketOwned(owned),
      mPid(-1),
      mUid(static_cast<uid_t>(-1)),
      mGid(static_cast<gid_t>(-1)),
      mUseCmdNum(useCmdNum),
      mCmdNum(0),
      mRefCount(1),
      mQueueing(false),
      mWakeFd(-1) {
    pthread_mutex_init(&mWriteMutex, nullptr);
    pthread_mutex_init(&mRefCountMutex, nullptr);
    struct ucred cred;
    socklen_t len = sizeof(cred);
    int savedErrno = errno;
    if (getsockopt(sock, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0) {
        mPid = cred.pid;
        mUid = cred.uid;
        mGid = cred.gid;
    }
    errno = savedErrno;
}

SocketClient::~SocketClient() {
    if (mSocketOwned && mSocket >= 0) close(mSocket);
    pthread_mutex_destroy(&mWriteMutex);
    pthread_mutex_destroy(&mRefCountMutex);
}

void SocketClient::setCmdNum(int cmdNum) {
    __atomic_store_n(&mCmdNum, cmdNum, __ATOMIC_RELEASE);
}

int SocketClient::getCmdNum() {
    return __atomic_load_n(&mCmdNum, __ATOMIC_ACQUIRE);
}

int SocketClient::sendMsg(int code, const char* msg, bool addErrno) {
    return sendMsg(code, msg, addErrno, mUseCmdNum);
}

int SocketClient::sendMsg(int code, const char* msg, bool addErrno, bool useCmdNum) {
    // The caller's errno, before anything here can change it.
    const int callerErrno = errno;
    std::string text = std::to_string(code) + " ";
    if (useCmdNum) text += std::to_string(getCmdNum()) + " ";
    text += msg ? msg : "";
    if (addErrno) {
        text += " (";
        text += strerror(callerErrno);
        text += ")";
    }
    return sendMsg(text.c_str());
}

int SocketClient::sendMsg(const char* msg) {
    if (!msg) msg = "";
    // The terminating NUL is part of the message on the wire.
    return sendData(msg, static_cast<int>(strlen(msg) + 1));
}

int SocketClient::sendCode(int code) {
    return sendData(&code, sizeof(code));
}

int SocketClient::sendBinaryMsg(int code, const void* data, int len) {
    if (len < 0 || (len > 0 && !data)) {
        errno = EINVAL;
        return -1;
    }
    char digits[16];
    snprintf(digits, sizeof(digits), "%.3d", code);
    char header[8] = {};
    memcpy(header, digits, 3);
    const uint32_t wireLen = htonl(static_cast<uint32_t>(len));
    memcpy(header + 4, &wireLen, sizeof(wireLen));
    iovec vec[2] = {{header, sizeof(header)}, {const_cast<void*>(data), static_cast<size_t>(len)}};
    pthread_mutex_lock(&mWriteMutex);
    int result = sendDataLockedv(vec, len > 0 ? 2 : 1);
    pthread_mutex_unlock(&mWriteMutex);
    return result;
}

int SocketClient::sendData(const void* data, int len) {
    if (len < 0 || (len > 0 && !data)) {
        errno = EINVAL;
        return -1;
    }
    iovec vec = {const_cast<void*>(data), static_cast<size_t>(len)};
    return sendDatav(&vec, 1);
}

int SocketClient::sendDatav(struct iovec* iov, int iovcnt) {
    if (iovcnt < 0 || (iovcnt > 0 && !iov)) {
        errno = EINVAL;
        return -1;
    }
    pthread_mutex_lock(&mWriteMutex);
    int result = sendDataLockedv(iov, iovcnt);
    pthread_mutex_unlock(&mWriteMutex);
    return result;
}

int SocketClient::sendDataLockedv(struct iovec* iov, int iovcnt) {
    if (mSocket < 0) {
        errno = EINVAL;
        return -1;
    }
    advance(iov, iovcnt, 0);
    if (mQueueing) {
        // Behind a queue nothing may overtake it; otherwise as much as the socket takes now.
        while (iovcnt > 0 && mQueued.empty()) {
            ssize_t n = sendv(mSocket, iov, iovcnt, MSG_DONTWAIT);
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
            if (n <= 0) {
                if (n == 0) errno = EIO;
                return -1;
            }
            advance(iov, iovcnt, static_cast<size_t>(n));
        }
        if (iovcnt == 0) return 0;
        const bool wasEmpty = mQueued.empty();
        for (; iovcnt > 0; ++iov, --iovcnt)
            mQueued.append(static_cast<const char*>(iov->iov_base), iov->iov_len);
        if (mQueued.size() > kMaxQueuedBytes) {
            // Its next read ends the connection and the listener drops it.
            ALOGW("client(fd=%d) takes no replies: cut off", mSocket);
            mQueued.clear();
            shutdown(mSocket, SHUT_RDWR);
            errno = ENOBUFS;
            return -1;
        }
        if (wasEmpty && mWakeFd >= 0) {
            // The listener adds POLLOUT for this client at its next round.
            char wake = 'W';
            (void)!write(mWakeFd, &wake, 1);
        }
        return 0;
    }
    while (iovcnt > 0) {
        ssize_t n = sendv(mSocket, iov, iovcnt, 0);
        // A non-blocking socket gets a bounded wait; a peer that still takes nothing is cut off.
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (orvhost::waitFor(mSocket, POLLOUT, orvhost::kClientSendTimeoutMs) & POLLOUT)
                continue;
            shutdown(mSocket, SHUT_RDWR);
            errno = EAGAIN;
        }
        if (n <= 0) {
            if (n == 0) errno = EIO;
            return -1;
        }
        advance(iov, iovcnt, static_cast<size_t>(n));
    }
    return 0;
}

bool SocketClient::flushQueued() {
    pthread_mutex_lock(&mWriteMutex);
    bool alive = true;
    while (!mQueued.empty()) {
        ssize_t n = send(mSocket, mQueued.data(), mQueued.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
        if (n <= 0) {
            mQueued.clear();
            alive = false;
            break;
        }
        mQueued.erase(0, static_cast<size_t>(n));
    }
    pthread_mutex_unlock(&mWriteMutex);
    return alive;
}

bool SocketClient::hasQueued() {
    pthread_mutex_lock(&mWriteMutex);
    bool queued = !mQueued.empty();
    pthread_mutex_unlock(&mWriteMutex);
    return queued;
}

void SocketClient::detach() {
    pthread_mutex_lock(&mWriteMutex);
    mQueueing = false;
    mWakeFd = -1;
    mQueued.clear();
    pthread_mutex_unlock(&mWriteMutex);
}

void SocketClient::incRef() {
    pthread_mutex_lock(&mRefCountMutex);
    ++mRefCount;
    pthread_mutex_unlock(&mRefCountMutex);
}

bool SocketClient::decRef() {
    pthread_mutex_lock(&mRefCountMutex);
    const bool last = --mRefCount == 0;
    pthread_mutex_unlock(&mRefCountMutex);
    if (last) delete this;
    return last;
}

char* SocketClient::quoteArg(const char* arg) {
    if (!arg) arg = "";
    const size_t len = strlen(arg);
    char* quoted = static_cast<char*>(malloc(len * 2 + 3));
    if (!quoted) return nullptr;
    char* q = quoted;
    *q++ = '"';
    for (const char* p = arg; *p; ++p) {
        if (*p == '"' || *p == '\\') *q++ = '\\';
        *q++ = *p;
    }
    *q++ = '"';
    *q = '\0';
    return quoted;
}
