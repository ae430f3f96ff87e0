#define LOG_TAG "OrvWorkQueue"

#include "daemon/core/OrvWorkQueue.h"

#include <sched.h>
#include <sys/resource.h>
#include <time.h>

#include "daemon/core/OrvStopWatch.h"

OrvWorkQueue::OrvWorkQueue() : mPriority(0), mPolicy(0) {
    pthread_mutex_init(&mLock, nullptr);
    pthread_cond_init(&mCond, nullptr);
}

// The serving thread is never joined and may still wait on the condition variable when the
// owner goes away at exit; destroying it then would block in glibc, so the primitives stay.
OrvWorkQueue::~OrvWorkQueue() {
    close();
}

bool OrvWorkQueue::close() {
    if (mClosed) return true;
    // Bounded: exit() may run on the serving thread itself, in the middle of a work.
    struct timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 2;
    if (pthread_mutex_timedlock(&mLock, &deadline) != 0) return false;
    mClosed = true;
    for (OrvWork* work : mQueue) {
        if (work->isDeleteAfterRun()) delete work;
    }
    mQueue.clear();
    return true;
}

void OrvWorkQueue::push_back(OrvWork* work) {
    pthread_mutex_lock(&mLock);
    mQueue.push_back(work);
    gWatch.check(">==work added======>");
    pthread_mutex_unlock(&mLock);
    // After unlocking: a thread woken while the mutex is still held would block on it at once
    // and need a second wake-up.
    pthread_cond_signal(&mCond);
}

void* OrvWorkQueue::run() {
    if (mPolicy != 0) {
        struct sched_param param = {};
        param.sched_priority = mPriority;
        sched_setscheduler(0, mPolicy, &param);
    } else if (mPriority != 0) {
        setpriority(PRIO_PROCESS, 0, mPriority);
    }
    for (;;) {
        pthread_mutex_lock(&mLock);
        while (mQueue.empty()) {
            pthread_cond_wait(&mCond, &mLock);
        }
        gWatch.check(">==work start======>");
        OrvWork* work = mQueue.front();
        mQueue.pop_front();
        // Executed under the lock: producers wait until the work is done.
        work->execute();
        gWatch.stop(">==work finish======>");
        if (work->isDeleteAfterRun()) {
            delete work;
        }
        pthread_mutex_unlock(&mLock);
    }
    return nullptr;
}
