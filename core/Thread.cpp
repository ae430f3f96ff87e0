#include "core/Thread.h"

Thread::Thread() : mThread(0), mStarted(0) {}

Thread::~Thread() {}

void* Thread::threadFunc(void* arg) {
    return static_cast<Thread*>(arg)->run();
}

int Thread::start() {
    int ret = pthread_create(&mThread, nullptr, threadFunc, this);
    if (ret == 0) {
        mStarted = 1;
    }
    return ret;
}
