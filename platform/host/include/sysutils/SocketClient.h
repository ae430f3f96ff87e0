#pragma once
#include <pthread.h>
#include <sys/types.h>

class SocketClient {
  public:
    SocketClient(int sock, bool owned);
    SocketClient(int sock, bool owned, bool useCmdNum);
    virtual ~SocketClient();

    int getSocket() const { return mSocket; }
    pid_t getPid() const { return mPid; }
    uid_t getUid() const { return mUid; }
    gid_t getGid() const { return mGid; }
    void setCmdNum(int cmdNum) { mCmdNum = cmdNum; }
    int getCmdNum() const { return mCmdNum; }

    // Sends "<code> <msg>" (or "<code> <cmdnum> <msg>") and one NUL byte; 0, or -1 when the
    // peer is gone. Never raises SIGPIPE.
    int sendMsg(int code, const char* msg, bool addErrno);
    int sendMsg(int code, const char* msg, bool addErrno, bool useCmdNum);
    int sendMsg(const char* msg);
    int sendData(const void* data, int len);

  private:
    int mSocket;
    bool mSocketOwned;
    pid_t mPid;
    uid_t mUid;
    gid_t mGid;
    bool mUseCmdNum;
    int mCmdNum;
    pthread_mutex_t mWriteMutex;
};
