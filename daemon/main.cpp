#define LOG_TAG "OrvMain"
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>

#include "core/OrvLockGuard.h"
#include "core/OrvLog.h"
#include "core/OrvVersion.h"
#include "daemon/Orvello.h"

namespace {

// signal() has BSD semantics on both bionic and glibc; bsd_signal exists only on the former.
void installHandler(int sig, void (*handler)(int)) {
    signal(sig, handler);
}

// Every ioctl execution keeps its descriptor for the daemon's life: take all that init allows,
// so that clients can still connect after many of them.
void raiseDescriptorLimit() {
    struct rlimit rl;
    if (getrlimit(RLIMIT_NOFILE, &rl) != 0 || rl.rlim_cur >= rl.rlim_max) return;
    rl.rlim_cur = rl.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &rl) != 0)
        ALOGW("cannot raise the descriptor limit (%s)", strerror(errno));
}

void* waitForSignals(void*) {
    sigset_t none;
    sigemptyset(&none);
    for (;;) sigsuspend(&none);
    return nullptr;
}

// SIGINT is blocked in every thread (they inherit the mask from main) but one that only waits
// for it, so the handler only ever interrupts that idle thread: exit() then never waits for a
// lock that the interrupted code holds, whatever the daemon was doing.
void blockSigint(int how) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    pthread_sigmask(how, &set, nullptr);
}

// Started once the daemon is up (or parked): start-up is not kept waiting for it, and a SIGINT
// that came meanwhile has stayed pending and is taken as soon as the thread waits.
void takeSigintOnOwnThread() {
    pthread_t thread;
    if (pthread_create(&thread, nullptr, waitForSignals, nullptr) == 0) {
        pthread_detach(thread);
    } else {
        blockSigint(SIG_UNBLOCK);
    }
}

}  // namespace

#if defined(__SANITIZE_THREAD__)
// The SIGINT handler logs and exits from signal context by design; keep TSan's report of that
// from turning every clean stop into a failure.
extern "C" const char* __tsan_default_options() {
    return "report_signal_unsafe=0";
}
// Threads are never joined: exit() tears the static daemon and timer objects down while their
// threads still exist. Only that teardown is exempt; races in a running daemon still fail.
extern "C" const char* __tsan_default_suppressions() {
    return "race:Orvello::~Orvello\n";
}
#endif

// The policy's "on_stop" puts back what the states changed, within a bound. The other stop
// signal waits meanwhile: it would otherwise exit half-way through.
static void restoreOnStop(int sig) {
    static const int kStopBoundMs = 1000;
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    if (Orvello::runStopActions(kStopBoundMs)) ALOGI("on_stop ran (signal %d)", sig);
}

// SIGTERM ("stop orvd") is taken like SIGINT only when the policy says what to put back;
// otherwise its default action stays. Blocked until then so that no thread takes it early.
static void takeSigtermIfRestoring(bool ready, void (*handler)(int)) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    if (ready && Orvello::hasStopActions()) {
        struct sigaction sa = {};
        sa.sa_handler = handler;
        sigaddset(&sa.sa_mask, SIGINT);
        sigaction(SIGTERM, &sa, nullptr);
    } else {
        pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    }
}

void signal_callback_handler(int sig) {
    ALOGI("caught signal %d", sig);
    // This runs on the signal thread, in normal context: the listener can be joined here.
    Orvello::stopEvents();
    restoreOnStop(sig);
    exit(sig);
}

// A daemon without a policy or without its socket stays parked instead of being restarted over
// and over.
void block_here() {
    ALOGI("disabled");
    pthread_mutex_t lock;
    pthread_cond_t cond;
    pthread_mutex_init(&lock, nullptr);
    pthread_cond_init(&cond, nullptr);
    OrvLockGuard guard(lock);
    for (;;) {
        pthread_cond_wait(&cond, &lock);
    }
}

static const char kUsage[] = "usage: orvd [--version | --help]\n";

int main(int argc, char** argv) {
    // init starts orvd without arguments; anything else is a person at a shell.
    if (argc > 1) {
        if (argc == 2 && strcmp(argv[1], "--version") == 0) {
            printf("orvd %s\n", ORV_VERSION);
            return 0;
        }
        if (argc == 2 && strcmp(argv[1], "--help") == 0) {
            fputs(kUsage, stdout);
            return 0;
        }
        fputs(kUsage, stderr);
        return 2;
    }
    ALOGI("start");
    raiseDescriptorLimit();
    OrvLogUpdateToggle();
    installHandler(SIGINT, signal_callback_handler);
    blockSigint(SIG_BLOCK);
    // A client that hangs up before its reply must not take the daemon down.
    installHandler(SIGPIPE, SIG_IGN);

    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &term, nullptr);

    const bool ready = Orvello::init();
    takeSigtermIfRestoring(ready, signal_callback_handler);
    takeSigintOnOwnThread();
    if (!ready) {
        block_here();
    }
    if (!Orvello::run()) {
        block_here();
    }
    ALOGE("Hello! You should NEVER see this line printed.");
    return 0;
}
