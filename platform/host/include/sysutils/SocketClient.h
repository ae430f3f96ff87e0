#pragma once
#include <pthread.h>
#include <sys/types.h>
#include <sys/uio.h>

// libsysutils' SocketClient: the public interface orvd uses, with the platform's behaviour.
class SocketClient {
  public:
    SocketClient(int sock, bool owned);
    SocketClient(int sock, bool owned, bool useCmdNum);
    virtual ~SocketClient();

    int getSocket() const { return mSocket; }
    pid_t getPid() const { return mPid; }
    uid_t getUid() const { return mUid; }
    gid_t getGid() const { return mGid; }
    void setCmdNum(int cmdNum);
    int getCmdNum();

    // "<code> <msg>" (or "<code> <cmdnum> <msg>") and one NUL byte. Blocks until all of it is
    // written (a send time-out on the socket bounds that); -1 and a warning when the write
    // fails. Never raises SIGPIPE.
    int sendMsg(int code, const char* msg, bool addErrno);
    int sendMsg(int code, const char* msg, bool addErrno, bool useCmdNum);
    int sendMsg(const char* msg);
    int sendData(const void* data, int len);
    // The iovec array may be changed by the call.
    int sendDatav(struct iovec* iov, int iovcnt);

    // Starts at 1; the client deletes itself when decRef takes it to 0 (and returns true).
    void incRef();
    bool decRef();

  private:
    int sendDataLockedv(struct iovec* iov, int iovcnt);

    int mSocket;
    bool mSocketOwned;
    pid_t mPid;
    uid_t mUid;
    gid_t mGid;
    bool mUseCmdNum;
    int mCmdNum;
    pthread_mutex_t mWriteMutex;
    pthread_mutex_t mRefCountMutex;
    int mRefCount;
};
