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
// What the control pipe carries.
constexpr char kCtrlShutdown = 0;
constexpr char kCtrlWakeup = 1;

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
      mThreadStarted(false) {
    pthread_mutex_init(&mClientsLock, nullptr);
}

SocketListener::~SocketListener() {
    if (mThreadStarted) {
        // The platform's destructor would free what its thread still uses.
        ALOGE("destroyed while the listener thread runs");
        stopListener();
    }
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
        errno = EBUSY;
        return -1;
    }
    if (!mSocketName && mSock < 0) {
        ALOGE("Failed to start unbound listener");
        errno = EINVAL;
        return -1;
    }
    if (mSocketName) {
        int fd = android_get_control_socket(mSocketName);
        std::string var = std::string(ANDROID_SOCKET_ENV_PREFIX) + mSocketName;
        if (fd < 0 && getenv(var.c_str())) {
            // Handed over but unusable: the platform fails here too.
            errno = ENOTSOCK;
            ALOGE("Obtaining file descriptor socket '%s' failed: %s", mSocketName, strerror(errno));
            return -1;
        }
        if (fd < 0) {
            // Host convenience: on a device only init creates the socket.
            fd = createSocket(orvhost_path(ANDROID_SOCKET_DIR "/") + mSocketName);
            if (fd < 0) return -1;
        }
        mSock = fd;
        mSockOwned = true;
        fcntl(mSock, F_SETFD, FD_CLOEXEC);
    }
    int err = 0;
    if (mListen && listen(mSock, backlog) != 0) {
        err = errno;
        ALOGE("Unable to listen on socket (%s)", strerror(err));
    } else if (pipe2(mCtrlPipe, O_CLOEXEC) != 0) {
        err = errno;
        ALOGE("pipe failed (%s)", strerror(err));
    } else {
        if (!mListen) {
            pthread_mutex_lock(&mClientsLock);
            mClients.push_front(new SocketClient(mSock, false, mUseCmdNum));
            pthread_mutex_unlock(&mClientsLock);
        }
        err = pthread_create(&mThread, nullptr, threadStart, this);
        if (err != 0) {
            ALOGE("pthread_create (%s)", strerror(err));
            close(mCtrlPipe[0]);
            close(mCtrlPipe[1]);
            mCtrlPipe[0] = mCtrlPipe[1] = -1;
        }
    }
    if (err != 0) {
        releaseClients();
        closeSocket();
        errno = err;
        return -1;
    }
    mThreadStarted = true;
    return 0;
}

void SocketListener::closeSocket() {
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

// -1 with errno set to the cause when the socket cannot be had; the cause is logged once.
int SocketListener::createSocket(const std::string& path) {
    sockaddr_un addr;
    socklen_t addrLen = 0;
    const char* what = "bind";
    int err = 0, fd = -1;
    if (!orvhost::fillAddress(path, &addr, &addrLen)) {
        err = ENAMETOOLONG;
    } else if (!orvhost::makeDirs(path.substr(0, path.rfind('/')))) {
        what = "mkdir";
        err = errno == EEXIST ? ENOTDIR : errno;
    } else if ((fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) < 0) {
        what = "socket";
        err = errno;
    } else {
        const sockaddr* sa = reinterpret_cast<const sockaddr*>(&addr);
        int rc = bind(fd, sa, addrLen);
        struct stat st;
        if (rc != 0 && errno == EADDRINUSE) {
            if (lstat(path.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode)) {
                errno = EEXIST;  // not a socket: somebody else's file
            } else if (isLive(addr, addrLen)) {
                errno = EADDRINUSE;  // another daemon answers there
            } else {
                // Left behind by a process that is gone.
                unlink(path.c_str());
                rc = bind(fd, sa, addrLen);
            }
        }
        // Mode set explicitly: the umask must not widen or narrow who may talk to the daemon.
        if (rc == 0 && (chmod(path.c_str(), 0660) != 0 || lstat(path.c_str(), &st) != 0)) {
            what = "chmod";
            unlink(path.c_str());
            rc = -1;
        }
        if (rc == 0) {
            mSockPath = path;
            mSockIno = static_cast<unsigned long>(st.st_ino);
            return fd;
        }
        err = errno;
        close(fd);
    }
    ALOGE("%s %s failed (%s)", what, path.c_str(), strerror(err));
    errno = err;
    return -1;
}

int SocketListener::stopListener() {
    char stop = kCtrlShutdown;
    ssize_t n;
    do {
        n = write(mCtrlPipe[1], &stop, 1);
    } while (n < 0 && errno == EINTR);
    if (n != 1) {
        ALOGE("Error writing to control pipe (%s)", strerror(errno));
        return -1;
    }
    pthread_join(mThread, nullptr);
    mThreadStarted = false;
    close(mCtrlPipe[0]);
    close(mCtrlPipe[1]);
    mCtrlPipe[0] = mCtrlPipe[1] = -1;
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
    std::vector<SocketClient*> pending;
    for (;;) {
        fds.clear();
        fds.push_back({mCtrlPipe[0], POLLIN, 0});
        if (mListen) fds.push_back({mSock, POLLIN, 0});
        const size_t firstClient = fds.size();
        pthread_mutex_lock(&mClientsLock);
        for (SocketClient* c : mClients) fds.push_back({c->getSocket(), POLLIN, 0});
        pthread_mutex_unlock(&mClientsLock);

        int r;
        do {
            r = poll(fds.data(), fds.size(), -1);
        } while (r < 0 && errno == EINTR);
        if (r < 0) {
            ALOGE("poll failed (%s) mListen=%d", strerror(errno), mListen);
            sleep(1);
            continue;
        }
        if (fds[0].revents & (POLLIN | POLLERR)) {
            char c = kCtrlShutdown;
            while (read(mCtrlPipe[0], &c, 1) < 0 && errno == EINTR) continue;
            if (c == kCtrlShutdown) break;
            continue;  // a wake-up: the set of clients changed
        }
        if (mListen && (fds[1].revents & (POLLIN | POLLERR))) {
            int fd;
            do {
                fd = accept4(mSock, nullptr, nullptr, SOCK_CLOEXEC);
            } while (fd < 0 && errno == EINTR);
            if (fd < 0) {
                // As the platform does: nobody is served until a connection can be taken.
                ALOGE("accept failed (%s)", strerror(errno));
                sleep(1);
                continue;
            }
            pthread_mutex_lock(&mClientsLock);
            mClients.push_front(new SocketClient(fd, true, mUseCmdNum));
            pthread_mutex_unlock(&mClientsLock);
        }
        // Held until served, so that a release elsewhere cannot delete a client in use.
        pending.clear();
        pthread_mutex_lock(&mClientsLock);
        for (size_t i = firstClient; i < fds.size(); ++i) {
            if (!(fds[i].revents & (POLLIN | POLLERR | POLLHUP))) continue;
            auto it = std::find_if(mClients.begin(), mClients.end(),
                                   [&](SocketClient* c) { return c->getSocket() == fds[i].fd; });
            if (it == mClients.end()) continue;
            (*it)->incRef();
            pending.push_back(*it);
        }
        pthread_mutex_unlock(&mClientsLock);
        for (SocketClient* c : pending) {
            if (!onDataAvailable(c)) release(c, false);
            c->decRef();
        }
    }
}

bool SocketListener::release(SocketClient* c, bool wakeup) {
    if (!mListen || !c) return false;
    pthread_mutex_lock(&mClientsLock);
    auto it = std::find(mClients.begin(), mClients.end(), c);
    const bool found = it != mClients.end();
    if (found) mClients.erase(it);
    pthread_mutex_unlock(&mClientsLock);
    if (!found) return false;
    c->decRef();
    if (wakeup && mThreadStarted) {
        char wake = kCtrlWakeup;
        while (write(mCtrlPipe[1], &wake, 1) < 0 && errno == EINTR) continue;
    }
    return true;
}

void SocketListener::releaseClients() {
    pthread_mutex_lock(&mClientsLock);
    std::list<SocketClient*> clients;
    clients.swap(mClients);
    pthread_mutex_unlock(&mClientsLock);
    for (SocketClient* c : clients) c->decRef();
}
