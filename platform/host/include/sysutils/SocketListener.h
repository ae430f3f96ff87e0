#pragma once
#include <pthread.h>
#include <sysutils/SocketClient.h>

#include <list>
#include <string>

// libsysutils' SocketListener: the public and protected interface orvd uses, with the
// platform's behaviour (see docs/device.md for where the host differs).
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
    // Like the platform's, not idempotent: a call without a running listener fails and logs.
    int stopListener();

    // Forgets and closes `c` (unless someone holds a reference); false when it is not ours.
    bool release(SocketClient* c) { return release(c, true); }

  protected:
    // false: the client is closed and forgotten.
    virtual bool onDataAvailable(SocketClient* c) = 0;

  private:
    bool release(SocketClient* c, bool wakeup);
    static void* threadStart(void* obj);
    void runListener();
    int createSocket(const std::string& path);
    void releaseClients();
    void closeSocket();  // closes an owned socket and removes the file we bound

    bool mListen;
    const char* mSocketName;
    int mSock;
    bool mSockOwned;
    bool mUseCmdNum;
    std::string mSockPath;  // the socket file we bound, removed again on stop
    unsigned long mSockIno;
    // Newest first: the platform serves ready clients in no order a client may count on.
    std::list<SocketClient*> mClients;
    pthread_mutex_t mClientsLock;
    int mCtrlPipe[2];
    pthread_t mThread;
    bool mThreadStarted;
};
