#pragma once
#include <pthread.h>

#include "core/OrvWork.h"
#include "core/Thread.h"

// The process-wide one-shot timer; on expiry it executes the time-out work on its own thread.
class OrvTimer : public Thread {
  public:
    static OrvTimer& getInstance();

    void* run() override;  // never returns
    ~OrvTimer() override;

    void set(int ms);  // arm, or re-arm from now; <= 0 disarms
    void reset();
    void setTimeoutWork(OrvWork* work);
    // For a simulation that keeps time itself: the armed period (0: none) and how many times
    // the timer has been armed so far.
    void peek(int& periodMs, unsigned& arms);

  private:
    OrvTimer();
    OrvTimer(const OrvTimer&) = delete;
    OrvTimer& operator=(const OrvTimer&) = delete;

    pthread_mutex_t mLock;
    pthread_cond_t mCond;
    int mPeriod;  // ms, 0 = not armed
    unsigned mArms = 0;
    OrvWork* mWork;
};
