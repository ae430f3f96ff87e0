#define LOG_TAG "OrvTimer"

#include "core/OrvTimer.h"

#include <errno.h>
#include <time.h>

#include "core/OrvLockGuard.h"
#include "core/OrvLog.h"

// Never destroyed: its thread is never joined and would run on in a dead object after exit().
OrvTimer& OrvTimer::getInstance() {
    static OrvTimer* instance = new OrvTimer();
    return *instance;
}

OrvTimer::OrvTimer() : mPeriod(0), mWork(nullptr) {
    pthread_mutex_init(&mLock, nullptr);
    // Deadlines on the monotonic clock: a step of the wall clock neither stretches nor cuts one.
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&mCond, &attr);
    pthread_condattr_destroy(&attr);
}

OrvTimer::~OrvTimer() {}

void OrvTimer::set(int ms) {
    OrvLockGuard guard(mLock);
    ORV_LOGD("set timer(%d ms)", ms);
    mPeriod = ms < 0 ? 0 : ms;
    if (mPeriod > 0) ++mArms;
    pthread_cond_signal(&mCond);
}

void OrvTimer::reset() {
    OrvLockGuard guard(mLock);
    ORV_LOGD("reset timer");
    if (mPeriod > 0) {
        mPeriod = 0;
        pthread_cond_signal(&mCond);
    }
}

void OrvTimer::setTimeoutWork(OrvWork* work) {
    OrvLockGuard guard(mLock);
    mWork = work;
}

void OrvTimer::peek(int& periodMs, unsigned& arms) {
    OrvLockGuard guard(mLock);
    periodMs = mPeriod;
    arms = mArms;
}

void* OrvTimer::run() {
    for (;;) {
        // Held across the wait and the expired work: a set() racing the time-out waits for it.
        OrvLockGuard guard(mLock);
        if (mPeriod <= 0) {
            ORV_LOGD("timer reset done");
            pthread_cond_wait(&mCond, &mLock);
        } else {
            struct timespec now;
            clock_gettime(CLOCK_MONOTONIC, &now);
            // Whole seconds are carried out of the nanoseconds: timedwait refuses a tv_nsec of
            // a second or more, which would make this loop spin and fire late.
            long nsec = now.tv_nsec + (mPeriod % 1000) * 1000000L;
            struct timespec deadline;
            deadline.tv_sec = now.tv_sec + mPeriod / 1000 + nsec / 1000000000L;
            deadline.tv_nsec = nsec % 1000000000L;
            ORV_LOGD("timer set done (%d ms)", mPeriod);
            int ret = pthread_cond_timedwait(&mCond, &mLock, &deadline);
            if (ret == ETIMEDOUT) {
                ORV_LOGD("%d ms timeout", mPeriod);
                mPeriod = 0;
                if (mWork != nullptr) {
                    mWork->execute();
                }
            }
        }
    }
    return nullptr;
}
