#define LOG_TAG "OrvStopWatch"

#include "core/OrvStopWatch.h"

#include <sys/time.h>

#include "core/OrvLog.h"

OrvStopWatch gWatch("gWatch");

OrvStopWatch::OrvStopWatch(const char* name) : mName(name ? name : "") {}

void OrvStopWatch::start(const char* label) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    mStartSec.store(now.tv_sec, std::memory_order_relaxed);
    mStartUsec.store(now.tv_usec, std::memory_order_relaxed);
    mLastSec.store(now.tv_sec, std::memory_order_relaxed);
    mLastUsec.store(now.tv_usec, std::memory_order_relaxed);
    mCount.store(0, std::memory_order_relaxed);
    ORV_LOGD("%s[%d]-%s: inc:0.0, total:0.0", mName.c_str(), 0, label);
}

void OrvStopWatch::check(const char* label) {
    int count = mCount.fetch_add(1, std::memory_order_relaxed) + 1;
    // The times are only ever shown in debug lines, and start() takes them afresh on every
    // arrival, before the switch is read; a check while debug is off reads no clock.
    if (!OrvLogIsEnabled()) return;
    struct timeval now;
    gettimeofday(&now, nullptr);
    // Seconds and microseconds are subtracted separately, without a borrow.
    ORV_LOGD("%s[%d]-%s: inc:%ld.%06ld, total:%ld.%06ld", mName.c_str(), count, label,
             static_cast<long>(now.tv_sec - mLastSec.load(std::memory_order_relaxed)),
             static_cast<long>(now.tv_usec - mLastUsec.load(std::memory_order_relaxed)),
             static_cast<long>(now.tv_sec - mStartSec.load(std::memory_order_relaxed)),
             static_cast<long>(now.tv_usec - mStartUsec.load(std::memory_order_relaxed)));
    mLastSec.store(now.tv_sec, std::memory_order_relaxed);
    mLastUsec.store(now.tv_usec, std::memory_order_relaxed);
}

void OrvStopWatch::stop(const char* label) {
    check(label);
}
