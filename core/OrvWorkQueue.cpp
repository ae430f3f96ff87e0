#define LOG_TAG "OrvWorkQueue"

#include "core/OrvWorkQueue.h"

#include <sched.h>
#include <sys/resource.h>
#include <time.h>

#include "core/OrvLockGuard.h"
#include "core/OrvStopWatch.h"

OrvWorkQueue::OrvWorkQueue() : mShared(new Shared), mPriority(0), mPolicy(0) {
    pthread_mutex_init(&mShared->lock, nullptr);
    pthread_cond_init(&mShared->cond, nullptr);
}

// The serving thread is never joined and may still wait on the lock or the condition variable
// when the owner goes away; destroying them then would block in glibc, and freeing them would
// let that thread wake on whatever takes their place. So they stay, unless no thread ever ran.
OrvWorkQueue::~OrvWorkQueue() {
    if (close() && !isStarted() && !mServed) delete mShared;
}

bool OrvWorkQueue::close() {
    if (mClosed) return true;
    // Bounded: exit() may run on the serving thread itself, in the middle of a work.
    struct timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 2;
    if (pthread_mutex_timedlock(&mShared->lock, &deadline) != 0) return false;
    mClosed = true;
    for (OrvWork* work : mShared->works) {
        if (work->isDeleteAfterRun()) delete work;
    }
    mShared->works.clear();
    return true;
}

void OrvWorkQueue::push_back(OrvWork* work) {
    {
        OrvLockGuard guard(mShared->lock);
        mShared->works.push_back(work);
        gWatch.check(">==work added======>");
    }
    // After unlocking: a thread woken while the mutex is still held would block on it at once
    // and need a second wake-up.
    pthread_cond_signal(&mShared->cond);
}

void* OrvWorkQueue::run() {
    if (mPolicy != 0) {
        struct sched_param param = {};
        param.sched_priority = mPriority;
        sched_setscheduler(0, mPolicy, &param);
    } else if (mPriority != 0) {
        setpriority(PRIO_PROCESS, 0, mPriority);
    }
    mServed = true;
    // From here on the thread never reads the object itself, which may be gone once closed.
    Shared* const shared = mShared;
    for (;;) {
        OrvLockGuard guard(shared->lock);
        while (shared->works.empty()) {
            pthread_cond_wait(&shared->cond, &shared->lock);
        }
        gWatch.check(">==work start======>");
        OrvWork* work = shared->works.front();
        shared->works.pop_front();
        // Executed under the lock: producers wait until the work is done.
        work->execute();
        gWatch.stop(">==work finish======>");
        if (work->isDeleteAfterRun()) {
            delete work;
        }
    }
    return nullptr;
}
