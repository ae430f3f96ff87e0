#pragma once
#include <pthread.h>
#include <sysutils/SocketClient.h>
#include <sysutils/SocketClientCommand.h>

#include <list>
#include <string>

// libsysutils' SocketListener: the same public and protected interface as the platform's.
class SocketListener {
  public:
    SocketListener(const char* socketName, bool listen);
    SocketListener(const char* socketName, bool listen, bool useCmdNum);
    SocketListener(int socketFd, bool listen);
    virtual ~SocketListener();

    // Takes the socket from ANDROID_SOCKET_<name> or creates $ORV_ROOT/dev/socket/<name>, then
    // serves clients on a thread of its own. 0 on success, -1 on failure.
    int startListener();
    int startListener(int backlog);
    int stopListener();

    void sendBroadcast(int code, const char* msg, bool addErrno);
    void runOnEachSocket(SocketClientCommand* command);
    // Forgets and closes `c` (unless someone holds a reference); false when it is not ours.
    bool release(SocketClient* c) { return release(c, true); }

  protected:
    // false: the client is closed and forgotten.
    virtual bool onDataAvailable(SocketClient* c) = 0;

  private:
    bool release(SocketClient* c, bool wakeup);
    static void* threadStart(void* obj);
    void runListener();
    int openSocket(int backlog);
    int createSocket(const std::string& path);
    bool acceptClient();
    void serveClient(SocketClient* c, short revents);
    int refuseClient();
    bool isClient(SocketClient* c);
    void wakeUp();
    void releaseClients();
    void closeCtrlPipe();
    void closeSocket();  // closes an owned socket and removes the file we bound

    bool mListen;
    const char* mSocketName;
    int mSock;
    bool mSockOwned;
    bool mUseCmdNum;
    std::string mSockPath;  // the socket file we bound, removed again on stop
    unsigned long mSockIno;
    std::list<SocketClient*> mClients;
    pthread_mutex_t mClientsLock;
    int mCtrlPipe[2];
    pthread_t mThread;
    bool mThreadStarted;
    // Held back for the moment descriptors run out: closing it lets the listener take a
    // waiting connection and close it, instead of finding it ready again at every poll.
    int mSpareFd;
    bool mOutOfFds;
};
