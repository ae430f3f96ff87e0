#pragma once
#include <pthread.h>

#include <atomic>
#include <deque>

#include "core/OrvWork.h"
#include "core/Thread.h"

// FIFO of work served by one thread. A work executes under the queue lock, so producers wait
// while it runs; that serialisation is intended.
class OrvWorkQueue : public Thread {
  public:
    OrvWorkQueue();
    void* run() override;  // never returns
    ~OrvWorkQueue() override;
    OrvWorkQueue(const OrvWorkQueue&) = delete;
    OrvWorkQueue& operator=(const OrvWorkQueue&) = delete;

    void push_back(OrvWork* work);
    // For teardown: waits for the running work, then keeps the queue locked for good so that
    // its thread never touches the queue again, and drops what is still queued. False when the
    // running work did not end in time: its thread may still use what the work uses.
    bool close();

  private:
    // What the serving thread touches. It outlives a queue whose thread was started: that
    // thread, blocked on the closed queue for good, may wait on it after the owner has gone and
    // its memory holds something else.
    struct Shared {
        pthread_mutex_t lock;
        pthread_cond_t cond;
        // A deque: no allocation per work once it has grown, unlike a list node per push.
        std::deque<OrvWork*> works;
    };
    Shared* mShared;
    int mPriority;
    int mPolicy;
    bool mClosed = false;  // only read and written by the owner's thread
    // Set by run(), which a thread may also enter without start() (the main thread serves the
    // update queue that way).
    std::atomic<bool> mServed{false};
};
