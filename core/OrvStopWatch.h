#pragma once
#include <atomic>
#include <string>

// Times an event from arrival through the queues. Shared by threads without a lock: the figures
// are diagnostics, so each field is a relaxed atomic and interleaved updates are accepted.
class OrvStopWatch {
  public:
    explicit OrvStopWatch(const char* name);

    void start(const char* label);
    void check(const char* label);
    void stop(const char* label);

    int getCount() const { return mCount.load(std::memory_order_relaxed); }

  private:
    std::string mName;
    std::atomic<int> mCount{0};
    std::atomic<long> mStartSec{0}, mStartUsec{0};
    std::atomic<long> mLastSec{0}, mLastUsec{0};
};

extern OrvStopWatch gWatch;
