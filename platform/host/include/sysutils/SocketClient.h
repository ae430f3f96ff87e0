#pragma once
#include <pthread.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <string>

// libsysutils' SocketClient: the same public interface as the platform's.
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

    // "<code> <msg>" (or "<code> <cmdnum> <msg>") and one NUL byte; 0, or -1 when the peer is
    // gone. Never raises SIGPIPE.
    int sendMsg(int code, const char* msg, bool addErrno);
    int sendMsg(int code, const char* msg, bool addErrno, bool useCmdNum);
    int sendMsg(const char* msg);
    // The code's bytes as they are in memory.
    int sendCode(int code);
    // "%.3d" of the code and a NUL in 4 bytes, the length in 4 big-endian bytes, the data.
    int sendBinaryMsg(int code, const void* data, int len);
    int sendData(const void* data, int len);
    // The iovec array may be changed by the call.
    int sendDatav(struct iovec* iov, int iovcnt);

    // Starts at 1; the client deletes itself when decRef takes it to 0 (and returns true).
    void incRef();
    bool decRef();

    // A new malloc'ed string: `arg` in double quotes, with '\\' and '"' escaped.
    static char* quoteArg(const char* arg);

  private:
    friend class SocketListener;

    int sendDataLockedv(struct iovec* iov, int iovcnt);
    // Listener side: writes what is queued; false when the peer is gone or was cut off.
    bool flushQueued();
    bool hasQueued();
    // Listener side, when it lets the client go: what is still queued is dropped and later
    // replies (from whoever holds a reference) are sent directly.
    void detach();

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
    // Set by a listener that serves this client: replies never block, what the socket cannot
    // take at once waits here for the listener's next POLLOUT, and `mWakeFd` tells it so.
    bool mQueueing;
    int mWakeFd;
    std::string mQueued;
};
