#pragma once
// orvd's own scenario machine and policy engine run in process against a virtual device: no
// daemon, no socket to it, no real node written. Time is the simulation's: "sleep MS" moves it
// and fires the gesture time-outs the daemon's timer would.
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "policy/OrvActionManager.h"
#include "protocol/OrvMsgHandler.h"
#include "scenario/OrvContext.h"
#include "tools/orvctl/OrvCtlCommand.h"
#include "tools/sim/OrvVirtualDevice.h"

class SocketClient;

class OrvSimulator {
  public:
    // One happening on the device, in the order the engine caused it.
    struct Effect {
        enum Kind { WRITE, PROP, IOCTL, PROGRAM, ERROR, WARNING, NOTE, SET };
        Kind kind;
        std::string target;  // path, property, program; empty for log lines
        std::string before;
        std::string after;  // value, request, arguments, the log text or the set's location
        // For a device effect, the method that caused it as the engine names it:
        // "com.a.action.launch.on_enter(reference *)[0]boost[1]xfs".
        std::string method = std::string();
    };
    struct Step {
        std::string event;   // the trace line, "start" or "timeout"
        long long atMs = 0;  // simulated time
        std::string fromApp, fromState, toApp, toState;
        std::vector<std::string> sets;  // action sets that ran, by location
        std::vector<Effect> effects;
        std::string reply;  // a query's answer
    };

    explicit OrvSimulator(bool strictPaths = false);
    ~OrvSimulator();
    OrvSimulator(const OrvSimulator&) = delete;
    OrvSimulator& operator=(const OrvSimulator&) = delete;

    // Loads the policy as orvd starts with it; the start-up reset is the first step. False with
    // the daemon's own reasons in `error` when orvd would not start with this file.
    bool start(const std::string& policyPath, Step& first, std::string& error);
    // Runs one trace command; a pause returns the time-outs it let fire, one step each.
    std::vector<Step> run(const OrvCtlCommand& command, const std::string& text);

    // orvd stopping (SIGINT, or SIGTERM): the policy's "on_stop" set. False, and `step`
    // untouched, when the policy has none.
    bool stop(Step& step);

    const OrvVirtualDevice& device() const { return mDevice; }
    const OrvContext& context() const { return mContext; }

  private:
    friend class OrvSimBarrier;

    Step deliver(int code, const std::string& payload, const std::string& text, bool reply);
    // Waits until the action thread has run everything queued so far.
    void drain();
    void record(const OrvVirtualDevice::Effect& effect);
    void onLog(int prio, const char* tag, const char* text);
    static void logHook(int prio, const char* tag, const char* text, void* cookie);
    void noteTimer();

    OrvVirtualDevice mDevice;
    OrvActionManager mManager;
    OrvContext mContext;
    OrvMsgHandler mHandler;
    int mReplyFds[2] = {-1, -1};
    SocketClient* mClient = nullptr;

    std::mutex mLock;  // guards what the action thread reports
    std::condition_variable mDrained;
    unsigned mBarriersDone = 0;
    Step* mCurrent = nullptr;
    std::string mLastExe;     // the fields of the method that ran last
    std::string mLastMethod;  // and where it is
    bool mStarted = false;

    long long mNowMs = 0;
    bool mArmed = false;
    long long mDeadlineMs = 0;
    unsigned mArms = 0;
};
