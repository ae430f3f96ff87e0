#pragma once
#include <pthread.h>

// A thread object: start() runs the object's run() on a new thread.
class Thread {
  public:
    Thread();
    virtual void* run() = 0;
    virtual ~Thread();

    // 0 on success; the started flag is set only then.
    int start();
    bool isStarted() const { return mStarted != 0; }

  private:
    static void* threadFunc(void* arg);

    pthread_t mThread;
    int mStarted;
};
