#pragma once
// The framework's side of orvd: one typed call per message.
//
// Events never block the caller and never fail loudly: they are framed on the caller's thread,
// put in a bounded queue and written by a background thread. When the queue is full, or orvd
// cannot be reached, they are dropped and counted. Queries wait for their answer, at most the
// query time-out, on a connection of their own.
#include <stdint.h>

#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "OrvConnection.h"

// Relative, so that it resolves whatever include path the user gives.
#include "../../../protocol/include/orv/protocol.h"

class OrvClient {
  public:
    struct Options {
        std::string socketPath;      // empty: the reserved socket "orvd"
        size_t queueCapacity = 256;  // events waiting for the sender
        int queryTimeoutMs = 500;
        int backoffMinMs = 10;  // first pause after a failed connect, doubled up to the maximum
        int backoffMaxMs = 1000;
    };
    struct Stats {
        uint64_t sent = 0;      // events written to orvd
        uint64_t dropped = 0;   // events given up: queue full or orvd unreachable
        uint64_t connects = 0;  // connections the sender made
    };

    OrvClient() : OrvClient(Options()) {}
    explicit OrvClient(Options options);
    ~OrvClient();
    OrvClient(const OrvClient&) = delete;
    OrvClient& operator=(const OrvClient&) = delete;

    // Events: true when queued, false when dropped.
    bool processStart(int pid, std::string_view name);
    bool processDie(int pid, std::string_view name);
    bool launch(std::string_view app);
    bool start(int pid, std::string_view app);
    bool displayed(int pid, std::string_view app);
    bool transition(int fromPid, std::string_view fromApp, int toPid, std::string_view toApp);
    bool rotate(orv::Rotate phase);
    bool listView(orv::ListView state, int pid);
    bool gesture(orv::Gesture gesture, int pid);
    bool scale(orv::Scale phase, int pid);
    bool glThreadAttach(int pid, int tid);
    bool glThreadDetach(int pid, int tid);
    bool update(std::string_view policyPath);
    bool goingToSleep();
    bool wakingUp();
    bool timeout();

    // Queries: the answer, or nothing when orvd did not answer in time.
    std::optional<std::string> eventMask(std::string_view app);
    std::optional<std::string> eventMaskOfPid(int pid);
    std::optional<std::string> largeHeap(int pid);
    std::optional<std::string> heapUtilization(int pid);
    std::optional<std::string> hardwareAcceleration(int pid);
    std::optional<std::string> thermalMask(std::string_view app);
    std::optional<std::string> dump();

    Stats stats() const;
    // Waits until every event queued so far was written or dropped; false after `timeoutMs`.
    bool flush(int timeoutMs);

  private:
    template <typename... F>
    bool post(int code, const F&... fields);
    bool enqueue(const std::string& frame);
    template <typename... F>
    std::optional<std::string> ask(int code, const F&... fields);
    void senderLoop();
    // Connects unless the back-off forbids it yet; called and returns with `lock` held.
    bool connectLocked(std::unique_lock<std::mutex>& lock);

    const Options mOptions;

    mutable std::mutex mLock;
    std::condition_variable mWork;    // the sender has something to do
    std::condition_variable mIdle;    // the queue became empty
    std::vector<std::string> mQueue;  // ring of frames, slots reused
    size_t mHead = 0;
    size_t mCount = 0;
    bool mBusy = false;  // the sender writes a batch
    bool mSenderWaiting = false;
    bool mStop = false;
    OrvConnection mEvents;  // the sender's; closed or shut down under mLock only
    long long mNextAttemptMs = 0;
    int mBackoffMs;
    Stats mStats;
    std::thread mSender;

    std::mutex mQueryLock;
    OrvConnection mQueries;
};
