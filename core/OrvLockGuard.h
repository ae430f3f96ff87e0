#pragma once

#include <pthread.h>

// Holds a pthread mutex for one scope, so that no early return can leave it locked. The raw
// mutex stays reachable for condition waits, which release and retake it inside the scope.
class OrvLockGuard {
  public:
    explicit OrvLockGuard(pthread_mutex_t& mutex) : mMutex(mutex) { pthread_mutex_lock(&mMutex); }
    ~OrvLockGuard() { pthread_mutex_unlock(&mMutex); }

    OrvLockGuard(const OrvLockGuard&) = delete;
    OrvLockGuard& operator=(const OrvLockGuard&) = delete;

  private:
    pthread_mutex_t& mMutex;
};
