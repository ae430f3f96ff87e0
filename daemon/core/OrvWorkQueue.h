#pragma once
#include <pthread.h>

#include <deque>

#include "daemon/core/OrvWork.h"
#include "daemon/core/Thread.h"

// FIFO of work served by one thread. A work executes under the queue lock, so producers wait
// while it runs; that serialisation is intended.
class OrvWorkQueue : public Thread {
  public:
    OrvWorkQueue();
    void* run() override;  // never returns
    ~OrvWorkQueue() override;

    void push_back(OrvWork* work);
    // For teardown: waits for the running work, then keeps the queue locked for good so that
    // its thread never touches the queue again, and drops what is still queued. False when the
    // running work did not end in time: its thread may still use what the work uses.
    bool close();

  private:
    // A deque: no allocation per work once it has grown, unlike a list node per push.
    std::deque<OrvWork*> mQueue;
    pthread_mutex_t mLock;
    pthread_cond_t mCond;
    int mPriority;
    int mPolicy;
    bool mClosed = false;  // only read and written by the owner's thread
};
