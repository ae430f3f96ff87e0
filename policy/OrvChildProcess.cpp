#include "policy/OrvChildProcess.h"

#include <errno.h>
#include <paths.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>

extern char** environ;

namespace {

int64_t monotonicMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Waits for the end of `pid` until `deadlineMs` on the monotonic clock (negative: for ever).
// 1 once reaped, with its status; 0 at the deadline, the child still unreaped; -1 on error.
int waitUntil(pid_t pid, int64_t deadlineMs, int& status) {
    if (deadlineMs < 0) {
        while (waitpid(pid, &status, 0) < 0) {
            if (errno != EINTR) return -1;
        }
        return 1;
    }
    int pidfd = -1;
#ifdef __NR_pidfd_open
    pidfd = static_cast<int>(syscall(__NR_pidfd_open, pid, 0));
#endif
    // Without a pidfd (older kernels) the child is polled, at most every 20 ms.
    int napMs = 1;
    int result = 0;
    for (;;) {
        pid_t got = waitpid(pid, &status, WNOHANG);
        if (got == pid) {
            result = 1;
            break;
        }
        if (got < 0 && errno != EINTR) {
            result = -1;
            break;
        }
        int64_t left = deadlineMs - monotonicMs();
        if (left <= 0) break;
        if (pidfd >= 0) {
            struct pollfd p = {pidfd, POLLIN, 0};
            poll(&p, 1, static_cast<int>(left));
        } else {
            struct timespec nap = {0, static_cast<long>(std::min<int64_t>(napMs, left)) * 1000000L};
            nanosleep(&nap, nullptr);
            napMs = std::min(napMs * 2, 20);
        }
    }
    if (pidfd >= 0) close(pidfd);
    return result;
}

}  // namespace

int OrvChildProcess::runShell(const char* command, int timeoutMs, bool& timedOut) {
    timedOut = false;
    posix_spawnattr_t attr;
    if (posix_spawnattr_init(&attr) != 0) return -1;
    // The daemon keeps SIGINT blocked outside its signal thread; the child starts with nothing
    // blocked, as it would under system(). Its own process group lets a time-out end everything
    // it started.
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setpgroup(&attr, 0);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
    char sh[] = "sh";
    char dashC[] = "-c";
    std::string text = command ? command : "";
    char* argv[] = {sh, dashC, &text[0], nullptr};
    pid_t pid = -1;
    const int64_t deadline = timeoutMs > 0 ? monotonicMs() + timeoutMs : -1;
    int err = posix_spawn(&pid, _PATH_BSHELL, nullptr, &attr, argv, environ);
    posix_spawnattr_destroy(&attr);
    if (err != 0) {
        errno = err;
        return -1;
    }
    int status = -1;
    int waited = waitUntil(pid, deadline, status);
    if (waited > 0) return status;
    timedOut = waited == 0;
    kill(-pid, SIGKILL);
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return status;
}
