#include "tools/sim/OrvSimulator.h"

#include <cutils/properties.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sysutils/SocketClient.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "protocol/include/orv/protocol.h"

#if !defined(__ANDROID__)
#include <orvhost/host.h>
#endif

#include "core/OrvLog.h"
#include "core/OrvTimer.h"
#include "policy/OrvStopAction.h"
#include "scenario/OrvState.h"

// Queued behind everything the engine was given; runs when all of it has run.
class OrvSimBarrier : public OrvActionManager::OrvAction {
  public:
    explicit OrvSimBarrier(OrvSimulator* sim)
        : OrvAction("", "", -1, -1, "SIMULATION"), mSim(sim) {}
    void execute() override {
        std::lock_guard<std::mutex> lock(mSim->mLock);
        ++mSim->mBarriersDone;
        mSim->mDrained.notify_all();
    }

  private:
    OrvSimulator* mSim;
};

namespace {

// The engine's lines name the action sets and carry its refusals. liblog has no logger hook
// common to every release, so on a device they stay in logcat and the simulation shows effects
// without them; the values it predicts are the same.
#if defined(__ANDROID__)
void captureLog(void (*)(int, const char*, const char*, void*), void*) {}
#else
void captureLog(orvhost_log_hook_t hook, void* cookie) {
    orvhost_set_log_hook(hook, cookie, false);
}
#endif

// Swaps ORV_ROOT for the lifetime of the object.
class ScopedRoot {
  public:
    explicit ScopedRoot(const std::string& root) {
        const char* old = getenv("ORV_ROOT");
        mHad = old != nullptr;
        if (mHad) mOld = old;
        setenv("ORV_ROOT", root.c_str(), 1);
    }
    ~ScopedRoot() {
        if (mHad)
            setenv("ORV_ROOT", mOld.c_str(), 1);
        else
            unsetenv("ORV_ROOT");
    }

  private:
    bool mHad;
    std::string mOld;
};

}  // namespace

OrvSimulator::OrvSimulator(bool strictPaths)
    : mDevice([this](const OrvVirtualDevice::Effect& e) { record(e); }, strictPaths) {
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, mReplyFds) == 0)
        mClient = new SocketClient(mReplyFds[0], false);
    captureLog(&OrvSimulator::logHook, this);
}

OrvSimulator::~OrvSimulator() {
    if (mStarted) drain();
    // The action thread is idle now and the manager runs nothing more as it goes.
    OrvDevice::install(nullptr);
    delete mClient;
    for (int fd : mReplyFds)
        if (fd >= 0) close(fd);
    // The engine's objects still log as they go; a tool's terminal is not the place.
    captureLog([](int, const char*, const char*, void*) {}, nullptr);
}

bool OrvSimulator::start(const std::string& policyPath, Step& first, std::string& error) {
    first = Step();
    first.event = "start";
    first.fromState = first.toState = orv::state::kReset;
    OrvDevice::install(&mDevice);
    {
        std::lock_guard<std::mutex> lock(mLock);
        mCurrent = &first;
    }
    // The engine loads from its fixed location: give it a private root holding a copy.
    char tmpl[] = "/tmp/orvsim.XXXXXX";
    const char* root = mkdtemp(tmpl);
    bool ok = false;
    if (root == nullptr) {
        error = "cannot create a temporary directory";
    } else {
        std::error_code ec;
        std::filesystem::create_directories(std::string(root) + "/data", ec);
        std::filesystem::copy_file(policyPath, std::string(root) + "/data/orvpolicy", ec);
        if (ec) {
            error = "cannot read " + policyPath + " (" + ec.message() + ")";
        } else {
            ScopedRoot scoped(root);
            // Debug lines name each method as it runs; the log hook keeps them off stderr.
            property_set(PROP_LOG_ENABLE, "1");
            OrvLogUpdateToggle();
            ok = mManager.init();
        }
        std::filesystem::remove_all(root, ec);
    }
    {
        std::lock_guard<std::mutex> lock(mLock);
        mCurrent = nullptr;
    }
    if (!ok) {
        for (const auto& e : first.effects)
            if (e.kind == Effect::ERROR) error += (error.empty() ? "" : "; ") + e.after;
        if (error.empty()) error = "orvd would not load this policy";
        return false;
    }
    mContext.mActionManager = &mManager;
    mHandler.setContext(&mContext);
    mHandler.setActionManager(&mManager);
    mStarted = true;
    return true;
}

std::vector<OrvSimulator::Step> OrvSimulator::run(const OrvCtlCommand& command,
                                                  const std::string& text) {
    std::vector<Step> steps;
    auto note = [&](const std::string& what) {
        Step s;
        s.event = text;
        s.atMs = mNowMs;
        s.fromApp = s.toApp = mContext.mAppName;
        s.fromState = s.toState = mContext.mState->getStateNameStr();
        s.effects.push_back({Effect::NOTE, "", "", what});
        steps.push_back(s);
    };
    switch (command.kind) {
        case OrvCtlCommand::MESSAGE:
            if (command.code == orv::CONFIGURATION_UPDATE)
                note("not simulated: the simulation keeps the policy it started with");
            else
                steps.push_back(deliver(command.code, command.payload, text, command.expectsReply));
            break;
        case OrvCtlCommand::PAUSE: {
            const long long until = mNowMs + command.pauseMs;
            while (mArmed && mDeadlineMs <= until) {
                // As the timer thread: disarmed first, then the time-out message.
                mNowMs = mDeadlineMs;
                mArmed = false;
                OrvTimer::getInstance().reset();
                steps.push_back(deliver(orv::TIMEOUT, "", "timeout", false));
            }
            mNowMs = until;
            break;
        }
        default:
            note("not simulated: only messages to orvd and pauses are");
            break;
    }
    return steps;
}

OrvSimulator::Step OrvSimulator::deliver(int code, const std::string& payload,
                                         const std::string& text, bool reply) {
    Step s;
    s.event = text;
    s.atMs = mNowMs;
    s.fromApp = mContext.mAppName;
    s.fromState = mContext.mState->getStateNameStr();
    {
        std::lock_guard<std::mutex> lock(mLock);
        mCurrent = &s;
    }
    mHandler.consumeMsg(code, payload.c_str(), mClient);
    drain();
    {
        std::lock_guard<std::mutex> lock(mLock);
        mCurrent = nullptr;
    }
    s.toApp = mContext.mAppName;
    s.toState = mContext.mState->getStateNameStr();
    noteTimer();
    if (reply && mReplyFds[1] >= 0) {
        std::string bytes;
        char buf[512];
        ssize_t n;
        while ((n = recv(mReplyFds[1], buf, sizeof(buf), MSG_DONTWAIT)) > 0) bytes.append(buf, n);
        bytes = bytes.substr(0, bytes.find('\0'));
        size_t blank = bytes.find(' ');
        s.reply = blank == std::string::npos ? "" : bytes.substr(blank + 1);
    }
    return s;
}

bool OrvSimulator::stop(Step& step) {
    if (!mStarted || !mManager.hasStopAction()) return false;
    step = Step();
    step.event = "stop";
    step.atMs = mNowMs;
    step.fromApp = step.toApp = mContext.mAppName;
    step.fromState = step.toState = mContext.mState->getStateNameStr();
    {
        std::lock_guard<std::mutex> lock(mLock);
        mCurrent = &step;
    }
    // The simulation has no bound to keep: wait for the set however long it takes.
    OrvStopAction::run(&mManager, 60 * 60 * 1000);
    drain();
    {
        std::lock_guard<std::mutex> lock(mLock);
        mCurrent = nullptr;
    }
    return true;
}

void OrvSimulator::drain() {
    unsigned want;
    {
        std::lock_guard<std::mutex> lock(mLock);
        want = mBarriersDone + 1;
    }
    (new OrvSimBarrier(this))->send(&mManager);
    std::unique_lock<std::mutex> lock(mLock);
    mDrained.wait(lock, [&] { return mBarriersDone >= want; });
}

void OrvSimulator::noteTimer() {
    int period = 0;
    unsigned arms = 0;
    OrvTimer::getInstance().peek(period, arms);
    if (period <= 0) {
        mArmed = false;
    } else if (arms != mArms) {
        mArmed = true;
        mDeadlineMs = mNowMs + period;
    }
    mArms = arms;
}

void OrvSimulator::record(const OrvVirtualDevice::Effect& e) {
    static const Effect::Kind kKinds[] = {Effect::WRITE, Effect::PROP, Effect::IOCTL,
                                          Effect::PROGRAM};
    std::lock_guard<std::mutex> lock(mLock);
    if (!mCurrent) return;
    // An ioctl's request says little; the method's own line has its fields and value.
    std::string after =
        e.kind == OrvVirtualDevice::Effect::IOCTL ? e.after + " " + mLastExe : e.after;
    mCurrent->effects.push_back({kKinds[e.kind], e.target, e.before, after, mLastMethod});
}

void OrvSimulator::logHook(int prio, const char* tag, const char* text, void* cookie) {
    static_cast<OrvSimulator*>(cookie)->onLog(prio, tag, text);
}

void OrvSimulator::onLog(int prio, const char* tag, const char* text) {
    std::string t = text ? text : "";
    while (!t.empty() && t.back() == '\n') t.pop_back();
    std::lock_guard<std::mutex> lock(mLock);
    if (!mCurrent) return;
    if (prio <= ANDROID_LOG_DEBUG) {
        // "exe   LOCATION:{...}": the method about to run names its action set.
        if (t.compare(0, 4, "exe ") != 0) return;
        size_t start = t.find_first_not_of(' ', 4);
        size_t end = t.find_first_of("[:", start);
        if (start == std::string::npos || end == std::string::npos) return;
        std::string set = t.substr(start, end - start);
        size_t brace = t.find(":{", start);
        mLastExe = brace == std::string::npos ? "" : t.substr(brace + 1);
        mLastMethod = t.substr(start, brace == std::string::npos ? end - start : brace - start);
        if (mCurrent->sets.empty() || mCurrent->sets.back() != set) {
            mCurrent->sets.push_back(set);
            mCurrent->effects.push_back({Effect::SET, "", "", set});
        }
        return;
    }
    if (prio >= ANDROID_LOG_WARN)
        mCurrent->effects.push_back(
            {prio >= ANDROID_LOG_ERROR ? Effect::ERROR : Effect::WARNING, "", "", t});
    else if (strcmp(tag ? tag : "", "OrvContext") == 0)
        mCurrent->effects.push_back({Effect::NOTE, "", "", t});
}
