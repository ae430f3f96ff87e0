#pragma once
#include <pthread.h>
#include <sysutils/SocketClient.h>

#include <list>
#include <string>

class SocketListener {
  public:
    SocketListener(const char* socketName, bool listen);
    SocketListener(int socketFd, bool listen);
    virtual ~SocketListener();

    // Takes the socket from ANDROID_SOCKET_<name> or creates $ORV_ROOT/dev/socket/<name>, then
    // serves clients on a thread of its own. 0 on success, -1 on failure.
    int startListener();
    int startListener(int backlog);
    int stopListener();

  protected:
    // false: the client is closed and forgotten.
    virtual bool onDataAvailable(SocketClient* c) = 0;

  private:
    static void* threadStart(void* obj);
    void runListener();
    int openSocket(int backlog);
    int createSocket(const std::string& path);
    bool acceptClient();
    void serveClients(const struct pollfd* fds, size_t count);
    void releaseClients();
    void closeCtrlPipe();
    void closeSocket();  // closes an owned socket and removes the file we bound

    bool mListen;
    const char* mSocketName;
    int mSock;
    bool mSockOwned;
    std::string mSockPath;  // the socket file we bound, removed again on stop
    unsigned long mSockIno;
    std::list<SocketClient*> mClients;
    pthread_mutex_t mClientsLock;
    int mCtrlPipe[2];
    pthread_t mThread;
    bool mThreadStarted;
};
