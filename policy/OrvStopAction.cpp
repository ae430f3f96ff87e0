#define LOG_TAG "OrvActionManager"
#include "policy/OrvStopAction.h"

#include <pthread.h>
#include <time.h>

#include "core/OrvLockGuard.h"
#include "core/OrvLog.h"
#include "protocol/include/orv/protocol.h"

// Shared by the waiter and the action; the last of the two to let go frees it, since a waiter
// that gave up may be gone (the process exiting) before the action runs.
struct OrvStopWait {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond;
    bool done = false;
    int users = 2;
    OrvActionManager* manager = nullptr;
    OrvStopAction* action = nullptr;

    OrvStopWait() {
        pthread_condattr_t attr;
        pthread_condattr_init(&attr);
        pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
        pthread_cond_init(&cond, &attr);
        pthread_condattr_destroy(&attr);
    }
    void release() {
        bool last;
        {
            OrvLockGuard guard(lock);
            last = --users == 0;
        }
        // The guard is gone before the lock it holds is freed.
        if (last) {
            pthread_cond_destroy(&cond);
            delete this;
        }
    }
};

OrvStopAction::OrvStopAction(OrvStopWait* wait)
    : OrvAction("", orv::state::kReset, -1, -1, "on_stop"), mWait(wait) {}

OrvStopAction::~OrvStopAction() {
    mWait->release();
}

void OrvStopAction::execute() {
    mActionManager->executeStopAction(this);
    OrvLockGuard guard(mWait->lock);
    mWait->done = true;
    pthread_cond_broadcast(&mWait->cond);
}

// Queuing waits while an action runs (the queue runs works under its lock); a thread of its own
// keeps that wait inside the bound too.
static void* sendStop(void* arg) {
    OrvStopWait* wait = static_cast<OrvStopWait*>(arg);
    wait->action->send(wait->manager);
    return nullptr;
}

bool OrvStopAction::run(OrvActionManager* manager, int timeoutMs) {
    if (manager == nullptr || !manager->hasStopAction()) return false;
    OrvStopWait* wait = new OrvStopWait();
    wait->manager = manager;
    wait->action = new OrvStopAction(wait);
    pthread_t thread;
    if (pthread_create(&thread, nullptr, sendStop, wait) != 0) {
        sendStop(wait);
    } else {
        pthread_detach(thread);
    }
    struct timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += timeoutMs / 1000;
    deadline.tv_nsec += (timeoutMs % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    bool done;
    {
        OrvLockGuard guard(wait->lock);
        int rc = 0;
        while (!wait->done && rc == 0) {
            rc = pthread_cond_timedwait(&wait->cond, &wait->lock, &deadline);
        }
        done = wait->done;
    }
    if (!done) ALOGW("on_stop did not end within %d ms", timeoutMs);
    wait->release();
    return done;
}
