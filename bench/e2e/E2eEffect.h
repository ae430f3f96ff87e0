#pragma once
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <string>

#include "E2eClock.h"

// The effect file, read in place: xfs writes without truncating, so one descriptor sees it.
class E2eEffect {
  public:
    explicit E2eEffect(const std::string& path) : mFd(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
    ~E2eEffect() {
        if (mFd >= 0) close(mFd);
    }
    // Spins unless `pauseUs` is given: a latency is measured to the first read that sees it, but
    // a slow server (one under valgrind) is better left the CPU.
    bool waitFor(char want, unsigned pauseUs = 0) const {
        long long deadline = e2eNowNs() + (pauseUs ? 120000000000LL : 10000000000LL);
        char c = 0;
        for (unsigned i = 0;; ++i) {
            if (pread(mFd, &c, 1, 0) == 1 && c == want) return true;
            if (pauseUs) usleep(pauseUs);
            if ((i & 1023) == 0 && e2eNowNs() > deadline) {
                fprintf(stderr, "bench: effect '%c' never appeared (last '%c')\n", want, c);
                return false;
            }
        }
    }

  private:
    int mFd;
};
