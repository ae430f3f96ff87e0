#pragma once
// The monotonic clock orvctl's waits and deadlines run on.
#include <errno.h>
#include <time.h>

class OrvCtlClock {
  public:
    static long long nowMs() {
        struct timespec ts;
        clock_gettime(CLOCK_MONOTONIC, &ts);
        return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
    }

    // Sleeps the whole time, signals or not.
    static void pauseMs(int ms) {
        struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
        while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
        }
    }
};
