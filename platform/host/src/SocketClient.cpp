#define LOG_TAG "SocketClient"
#include <errno.h>
#include <log/log.h>
#include <string.h>
#include <sys/socket.h>
#include <sysutils/SocketClient.h>
#include <unistd.h>

#include <string>

namespace {

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
      mRefCount(1) {
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
    if (sendData(msg, static_cast<int>(strlen(msg) + 1)) != 0) {
        const int err = errno;
        ALOGW("Unable to send msg '%s'", msg);
        errno = err;
        return -1;
    }
    return 0;
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
        errno = EHOSTUNREACH;
        return -1;
    }
    advance(iov, iovcnt, 0);
    while (iovcnt > 0) {
        msghdr m = {};
        m.msg_iov = iov;
        m.msg_iovlen = static_cast<size_t>(iovcnt);
        // MSG_NOSIGNAL: a vanished peer yields EPIPE instead of killing the process.
        ssize_t n = sendmsg(mSocket, &m, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = EIO;
            const int err = errno;
            ALOGW("write error (%s)", strerror(err));
            errno = err;
            return -1;
        }
        advance(iov, iovcnt, static_cast<size_t>(n));
    }
    return 0;
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
