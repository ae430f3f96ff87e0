#define LOG_TAG "SocketListener"
#include <cutils/sockets.h>
#include <errno.h>
#include <fcntl.h>
#include <log/log.h>
#include <orvhost/host.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sysutils/SocketListener.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "HostInternal.h"

namespace {

constexpr int kDefaultBacklog = 4;
// After a hard accept failure (out of descriptors), how long the listening socket rests.
constexpr int kAcceptPauseMs = 100;

// True when something accepts connections on the socket file.
bool isLive(const sockaddr_un& addr, socklen_t addrLen) {
    // Non-blocking: a live daemon with a full backlog must not stall the probe.
    int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (probe < 0) return false;
    int r = connect(probe, reinterpret_cast<const sockaddr*>(&addr), addrLen);
    bool live = r == 0 || errno == EAGAIN || errno == EINPROGRESS;
    close(probe);
    return live;
}

}  // namespace

SocketListener::SocketListener(const char* socketName, bool listen)
    : SocketListener(socketName, listen, false) {}

SocketListener::SocketListener(const char* socketName, bool listen, bool useCmdNum)
    : SocketListener(-1, listen) {
    mSocketName = socketName;
    mUseCmdNum = useCmdNum;
}

SocketListener::SocketListener(int socketFd, bool listen)
    : mListen(listen),
      mSocketName(nullptr),
      mSock(socketFd),
      mSockOwned(false),
      mUseCmdNum(false),
      mSockIno(0),
      mCtrlPipe{-1, -1},
      mThread(),
      mThreadStarted(false),
      mSpareFd(-1),
      mOutOfFds(false) {
    pthread_mutex_init(&mClientsLock, nullptr);
}

SocketListener::~SocketListener() {
    if (mThreadStarted) stopListener();
    releaseClients();
    closeSocket();
    pthread_mutex_destroy(&mClientsLock);
}

int SocketListener::startListener() {
    return startListener(kDefaultBacklog);
}

int SocketListener::startListener(int backlog) {
    if (mThreadStarted) {
        ALOGE("listener already started");
        return -1;
    }
    if (openSocket(backlog) != 0) {
        releaseClients();
        closeSocket();
        return -1;
    }
    // Non-blocking: a client queueing a reply must never wait for the listener.
    int err = pipe2(mCtrlPipe, O_CLOEXEC | O_NONBLOCK) != 0 ? errno : 0;
    if (err == 0) {
        err = pthread_create(&mThread, nullptr, threadStart, this);
        if (err != 0) closeCtrlPipe();
    }
    if (err != 0) {
        ALOGE("cannot start the listener thread (%s)", strerror(err));
        mCtrlPipe[0] = mCtrlPipe[1] = -1;
        releaseClients();
        closeSocket();
        return -1;
    }
    mThreadStarted = true;
    return 0;
}

void SocketListener::closeCtrlPipe() {
    close(mCtrlPipe[0]);
    close(mCtrlPipe[1]);
    mCtrlPipe[0] = mCtrlPipe[1] = -1;
}

void SocketListener::closeSocket() {
    if (mSpareFd >= 0) close(mSpareFd);
    mSpareFd = -1;
    if (mSockOwned && mSock >= 0) {
        close(mSock);
        mSock = -1;
        mSockOwned = false;
    }
    if (!mSockPath.empty()) {
        // Only our own file: another daemon may have taken the name since.
        struct stat st;
        if (lstat(mSockPath.c_str(), &st) == 0 && static_cast<unsigned long>(st.st_ino) == mSockIno)
            unlink(mSockPath.c_str());
        mSockPath.clear();
    }
}

int SocketListener::openSocket(int backlog) {
    if (mSocketName && mSock < 0) {
        int fd = android_get_control_socket(mSocketName);
        if (fd < 0) {
            std::string var = std::string(ANDROID_SOCKET_ENV_PREFIX) + mSocketName;
            if (getenv(var.c_str())) ALOGW("%s is not a socket; creating one", var.c_str());
            fd = createSocket(orvhost_path(ANDROID_SOCKET_DIR "/") + mSocketName);
            if (fd < 0) return -1;
        }
        mSock = fd;
        mSockOwned = true;
    }
    if (mSock < 0) {
        ALOGE("no socket to serve");
        return -1;
    }
    if (!mListen) {
        pthread_mutex_lock(&mClientsLock);
        mClients.push_back(new SocketClient(mSock, false, mUseCmdNum));
        pthread_mutex_unlock(&mClientsLock);
        return 0;
    }
    if (listen(mSock, backlog) != 0) {
        ALOGE("listen failed (%s)", strerror(errno));
        return -1;
    }
    // The thread only accepts after poll; non-blocking keeps a lost race from stalling it.
    int flags = fcntl(mSock, F_GETFL);
    if (flags >= 0) fcntl(mSock, F_SETFL, flags | O_NONBLOCK);
    mSpareFd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    return 0;
}

int SocketListener::createSocket(const std::string& path) {
    sockaddr_un addr;
    socklen_t addrLen = 0;
    if (!orvhost::fillAddress(path, &addr, &addrLen)) {
        ALOGE("socket path too long: %s", path.c_str());
        return -1;
    }
    if (!orvhost::makeDirs(path.substr(0, path.rfind('/')))) {
        ALOGE("cannot create the directory of %s (%s)", path.c_str(), strerror(errno));
        return -1;
    }
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        ALOGE("socket failed (%s)", strerror(errno));
        return -1;
    }
    const sockaddr* sa = reinterpret_cast<const sockaddr*>(&addr);
    int rc = bind(fd, sa, addrLen);
    if (rc != 0 && errno == EADDRINUSE) {
        struct stat st;
        if (lstat(path.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode)) {
            ALOGE("%s exists and is not a socket", path.c_str());
            close(fd);
            return -1;
        }
        if (isLive(addr, addrLen)) {
            ALOGE("socket %s is in use by another process", path.c_str());
            close(fd);
            return -1;
        }
        // Left behind by a process that is gone.
        unlink(path.c_str());
        rc = bind(fd, sa, addrLen);
    }
    if (rc != 0) {
        ALOGE("bind %s failed (%s)", path.c_str(), strerror(errno));
        close(fd);
        return -1;
    }
    // Mode set explicitly: the umask must not widen or narrow who may talk to the daemon.
    struct stat st;
    if (chmod(path.c_str(), 0660) != 0 || lstat(path.c_str(), &st) != 0) {
        ALOGE("chmod %s failed (%s)", path.c_str(), strerror(errno));
        close(fd);
        unlink(path.c_str());
        return -1;
    }
    mSockPath = path;
    mSockIno = static_cast<unsigned long>(st.st_ino);
    return fd;
}

int SocketListener::stopListener() {
    if (!mThreadStarted) return -1;
    char stop = 'S';
    ssize_t n;
    do {
        n = write(mCtrlPipe[1], &stop, 1);
    } while (n < 0 &&
             (errno == EINTR || (errno == EAGAIN && orvhost::waitFor(mCtrlPipe[1], POLLOUT) != 0)));
    if (n != 1) {
        ALOGE("cannot signal the listener thread (%s)", strerror(errno));
        return -1;
    }
    pthread_join(mThread, nullptr);
    mThreadStarted = false;
    closeCtrlPipe();
    releaseClients();
    closeSocket();
    return 0;
}

void* SocketListener::threadStart(void* obj) {
    static_cast<SocketListener*>(obj)->runListener();
    return nullptr;
}

void SocketListener::runListener() {
    std::vector<pollfd> fds;
    std::vector<SocketClient*> polled;
    bool acceptPaused = false;
    for (bool stop = false; !stop;) {
        fds.clear();
        polled.clear();
        fds.push_back({mCtrlPipe[0], POLLIN, 0});
        const bool pollListen = mListen && !acceptPaused;
        if (pollListen) fds.push_back({mSock, POLLIN, 0});
        const size_t firstClient = fds.size();
        // Each polled client is held until the round ends, so a release from another thread
        // cannot close a descriptor that this poll still watches.
        pthread_mutex_lock(&mClientsLock);
        for (SocketClient* c : mClients) {
            c->incRef();
            polled.push_back(c);
            short events = POLLIN | (c->hasQueued() ? POLLOUT : 0);
            fds.push_back({c->getSocket(), events, 0});
        }
        pthread_mutex_unlock(&mClientsLock);

        int r = poll(fds.data(), fds.size(), acceptPaused ? kAcceptPauseMs : -1);
        acceptPaused = false;
        if (r < 0 && errno != EINTR) {
            ALOGE("poll failed (%s)", strerror(errno));
            poll(nullptr, 0, kAcceptPauseMs);
        }
        if (r > 0 && fds[0].revents != 0) {
            char cmds[64];
            for (ssize_t n; (n = read(mCtrlPipe[0], cmds, sizeof(cmds))) > 0;)
                stop = stop || memchr(cmds, 'S', static_cast<size_t>(n)) != nullptr;
        }
        if (r > 0 && !stop) {
            if (pollListen && fds[1].revents != 0) acceptPaused = !acceptClient();
            for (size_t i = 0; i < polled.size(); ++i)
                serveClient(polled[i], fds[firstClient + i].revents);
        }
        for (SocketClient* c : polled) c->decRef();
    }
}

void SocketListener::serveClient(SocketClient* c, short ev) {
    if ((ev & POLLOUT) && !c->flushQueued() && !(ev & POLLIN)) {
        release(c, false);
        return;
    }
    if (!(ev & (POLLIN | POLLHUP | POLLERR | POLLNVAL)) || !isClient(c)) return;
    if (onDataAvailable(c)) return;
    // The socket given in non-listen mode is not a connection: it stays unless it is dead.
    if (!mListen && !(ev & (POLLHUP | POLLERR | POLLNVAL))) return;
    release(c, false);
}

bool SocketListener::acceptClient() {
    for (;;) {
        int fd = accept4(mSock, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            switch (errno) {
                case EINTR:
                case ECONNABORTED:
                case EPROTO:
                    continue;
                case EAGAIN:
#if EWOULDBLOCK != EAGAIN
                case EWOULDBLOCK:
#endif
                    return true;
                case EMFILE:
                case ENFILE:
                    // accept reports these before it looks for a waiting connection.
                    switch (refuseClient()) {
                        case 1:
                            continue;
                        case 0:
                            return true;
                        default:
                            return false;
                    }
                default:
                    ALOGE("accept failed (%s)", strerror(errno));
                    return false;
            }
        }
        if (mOutOfFds) {
            mOutOfFds = false;
            ALOGI("accepting clients again");
        }
        SocketClient* c = new SocketClient(fd, true, mUseCmdNum);
        c->mQueueing = true;
        c->mWakeFd = mCtrlPipe[1];
        pthread_mutex_lock(&mClientsLock);
        mClients.push_back(c);
        pthread_mutex_unlock(&mClientsLock);
    }
}

// Out of descriptors: the spare one makes room to take the waiting connection and close it, so
// the listening socket is not ready again at once. 1: one refused, 0: none was waiting, -1: not
// even that was possible.
int SocketListener::refuseClient() {
    if (!mOutOfFds) {
        mOutOfFds = true;
        ALOGE("accept failed (%s): refusing clients until a descriptor is free", strerror(errno));
    }
    if (mSpareFd < 0) mSpareFd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (mSpareFd < 0) return -1;
    close(mSpareFd);
    int fd = accept4(mSock, nullptr, nullptr, SOCK_CLOEXEC);
    const int result = fd >= 0 ? 1 : (errno == EAGAIN || errno == EWOULDBLOCK) ? 0 : -1;
    if (fd >= 0) close(fd);
    mSpareFd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    return result;
}

bool SocketListener::isClient(SocketClient* c) {
    pthread_mutex_lock(&mClientsLock);
    bool found = std::find(mClients.begin(), mClients.end(), c) != mClients.end();
    pthread_mutex_unlock(&mClientsLock);
    return found;
}

bool SocketListener::release(SocketClient* c, bool wakeup) {
    pthread_mutex_lock(&mClientsLock);
    auto it = std::find(mClients.begin(), mClients.end(), c);
    const bool found = it != mClients.end();
    if (found) mClients.erase(it);
    pthread_mutex_unlock(&mClientsLock);
    if (!found) return false;
    if (wakeup) wakeUp();
    c->detach();
    c->decRef();
    return true;
}

void SocketListener::wakeUp() {
    if (!mThreadStarted) return;
    char wake = 'W';
    (void)!write(mCtrlPipe[1], &wake, 1);
}

// The clients, each held until `fn` is done with it; no lock is held while it runs.
template <typename Fn>
static void forEachClient(pthread_mutex_t* lock, const std::list<SocketClient*>& clients, Fn fn) {
    pthread_mutex_lock(lock);
    std::vector<SocketClient*> held(clients.begin(), clients.end());
    for (SocketClient* c : held) c->incRef();
    pthread_mutex_unlock(lock);
    for (SocketClient* c : held) {
        fn(c);
        c->decRef();
    }
}

void SocketListener::sendBroadcast(int code, const char* msg, bool addErrno) {
    const int callerErrno = errno;
    forEachClient(&mClientsLock, mClients, [&](SocketClient* c) {
        errno = callerErrno;
        if (c->sendMsg(code, msg, addErrno, false) != 0) release(c, true);
    });
}

void SocketListener::runOnEachSocket(SocketClientCommand* command) {
    forEachClient(&mClientsLock, mClients,
                  [command](SocketClient* c) { command->runSocketCommand(c); });
}

void SocketListener::releaseClients() {
    pthread_mutex_lock(&mClientsLock);
    std::list<SocketClient*> clients;
    clients.swap(mClients);
    pthread_mutex_unlock(&mClientsLock);
    for (SocketClient* c : clients) {
        c->detach();
        c->decRef();
    }
}
