#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sysutils/SocketClient.h>
#include <unistd.h>

#include <string>

#include "HostInternal.h"

SocketClient::SocketClient(int sock, bool owned) : SocketClient(sock, owned, false) {}

SocketClient::SocketClient(int sock, bool owned, bool useCmdNum)
    : mSocket(sock),
      mSocketOwned(owned),
      mPid(-1),
      mUid(static_cast<uid_t>(-1)),
      mGid(static_cast<gid_t>(-1)),
      mUseCmdNum(useCmdNum),
      mCmdNum(0) {
    pthread_mutex_init(&mWriteMutex, nullptr);
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
}

int SocketClient::sendMsg(int code, const char* msg, bool addErrno) {
    return sendMsg(code, msg, addErrno, mUseCmdNum);
}

int SocketClient::sendMsg(int code, const char* msg, bool addErrno, bool useCmdNum) {
    // The caller's errno, before anything here can change it.
    const int callerErrno = errno;
    std::string text = std::to_string(code) + " ";
    if (useCmdNum) text += std::to_string(mCmdNum) + " ";
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

int SocketClient::sendData(const void* data, int len) {
    if (len < 0 || (len > 0 && !data) || mSocket < 0) {
        errno = EINVAL;
        return -1;
    }
    const char* p = static_cast<const char*>(data);
    size_t left = static_cast<size_t>(len);
    int result = 0;
    pthread_mutex_lock(&mWriteMutex);
    while (left > 0) {
        // MSG_NOSIGNAL: a vanished peer yields EPIPE instead of killing the daemon.
        ssize_t n = send(mSocket, p, left, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        // A full socket gets a bounded wait; a client that still takes nothing is cut off, so
        // its next read ends the connection and the listener drops it.
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (orvhost::waitFor(mSocket, POLLOUT, orvhost::kClientSendTimeoutMs) & POLLOUT)
                continue;
            shutdown(mSocket, SHUT_RDWR);
            errno = EAGAIN;
        }
        if (n <= 0) {
            if (n == 0) errno = EIO;
            result = -1;
            break;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    pthread_mutex_unlock(&mWriteMutex);
    return result;
}
