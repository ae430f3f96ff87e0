#include "include/orv/OrvClient.h"

#include <time.h>

#include <chrono>

namespace {

long long nowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

// What one write may carry: whole frames up to what orvd takes in one read, so that a daemon
// that keeps up reads whole frames only and never leaves a part of one behind.
constexpr size_t kBatchBytes = orv::kReadMax;

}  // namespace

OrvClient::OrvClient(Options options)
    : mOptions(std::move(options)),
      mQueue(mOptions.queueCapacity > 0 ? mOptions.queueCapacity : 1),
      mBackoffMs(mOptions.backoffMinMs) {
    for (auto& slot : mQueue) slot.reserve(64);
    mSender = std::thread(&OrvClient::senderLoop, this);
}

OrvClient::~OrvClient() {
    {
        std::lock_guard<std::mutex> guard(mLock);
        mStop = true;
        // A write into a wedged orvd would otherwise hold the join for ever.
        mEvents.shutdown();
    }
    mWork.notify_all();
    mSender.join();
}

template <typename... F>
bool OrvClient::post(int code, const F&... fields) {
    // Per-thread scratch: no allocation on the caller's thread once it has grown.
    thread_local std::string payload, frame;
    payload.clear();
    orv::appendFields(payload, fields...);
    frame.clear();
    orv::appendFrame(frame, code, payload);
    return enqueue(frame);
}

bool OrvClient::enqueue(const std::string& frame) {
    bool wake;
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (mStop || mCount == mQueue.size()) {
            ++mStats.dropped;
            return false;
        }
        mQueue[(mHead + mCount) % mQueue.size()].assign(frame);
        ++mCount;
        wake = mSenderWaiting;
        mSenderWaiting = false;
    }
    if (wake) mWork.notify_one();
    return true;
}

bool OrvClient::connectLocked(std::unique_lock<std::mutex>& lock) {
    if (mEvents.isOpen()) return true;
    if (nowMs() < mNextAttemptMs) return false;
    OrvConnection fresh;
    std::string error;
    lock.unlock();
    bool ok = fresh.open(mOptions.socketPath, error);
    lock.lock();
    if (!ok) {
        mNextAttemptMs = nowMs() + mBackoffMs;
        mBackoffMs = std::min(mBackoffMs * 2, mOptions.backoffMaxMs);
        return false;
    }
    mEvents.swap(fresh);
    mBackoffMs = mOptions.backoffMinMs;
    ++mStats.connects;
    return true;
}

void OrvClient::senderLoop() {
    std::string batch;
    std::unique_lock<std::mutex> lock(mLock);
    while (!mStop) {
        if (mCount == 0) {
            mIdle.notify_all();
            mSenderWaiting = true;
            mWork.wait(lock);
            continue;
        }
        if (!connectLocked(lock)) {
            if (mStop) break;
            // orvd is away: what waits now would be stale by the time it is back.
            mStats.dropped += mCount;
            mHead = (mHead + mCount) % mQueue.size();
            mCount = 0;
            mIdle.notify_all();
            mSenderWaiting = true;
            mWork.wait_until(lock, std::chrono::steady_clock::now() +
                                       std::chrono::milliseconds(mNextAttemptMs - nowMs()));
            continue;
        }
        batch.clear();
        size_t taken = 0;
        while (taken < mCount &&
               (taken == 0 || batch.size() + mQueue[mHead].size() <= kBatchBytes)) {
            batch += mQueue[mHead];
            mHead = (mHead + 1) % mQueue.size();
            ++taken;
        }
        mCount -= taken;
        mBusy = true;
        lock.unlock();
        std::string error;
        bool ok = mEvents.send(batch, error);
        lock.lock();
        if (!ok && !mStop) {
            // An orvd that restarted took nothing of this batch: one more try on a new connection.
            mEvents.close();
            mNextAttemptMs = 0;
            if (connectLocked(lock) && !mStop) {
                lock.unlock();
                ok = mEvents.send(batch, error);
                lock.lock();
            }
            if (!ok) mEvents.close();
        }
        if (ok)
            mStats.sent += taken;
        else
            mStats.dropped += taken;
        mBusy = false;
    }
    mStats.dropped += mCount;
    mCount = 0;
    mIdle.notify_all();
}

OrvClient::Stats OrvClient::stats() const {
    std::lock_guard<std::mutex> guard(mLock);
    return mStats;
}

bool OrvClient::flush(int timeoutMs) {
    std::unique_lock<std::mutex> lock(mLock);
    return mIdle.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                          [this] { return mCount == 0 && !mBusy; });
}

template <typename... F>
std::optional<std::string> OrvClient::ask(int code, const F&... fields) {
    std::string payload;
    orv::appendFields(payload, fields...);
    const std::string frame = orv::frame(code, payload);
    std::lock_guard<std::mutex> guard(mQueryLock);
    std::string error;
    for (int attempt = 0; attempt < 2; ++attempt) {
        // A connection orvd closed since the last query shows only when used: one retry.
        if (!mQueries.isOpen()) {
            if (!mQueries.open(mOptions.socketPath, error)) return std::nullopt;
            mQueries.setSendTimeout(mOptions.queryTimeoutMs);
        }
        if (!mQueries.send(frame, error)) {
            mQueries.close();
            continue;
        }
        orv::Reply reply;
        switch (mQueries.readReply(mOptions.queryTimeoutMs, reply)) {
            case OrvConnection::OK:
                if (reply.code == code) return reply.text;
                break;
            case OrvConnection::CLOSED:
                mQueries.close();
                continue;
            default:
                break;
        }
        // A late answer would be taken for the next query's.
        mQueries.close();
        return std::nullopt;
    }
    return std::nullopt;
}

bool OrvClient::processStart(int pid, std::string_view name) {
    return post(orv::PROCESS_START, pid, name);
}
bool OrvClient::processDie(int pid, std::string_view name) {
    return post(orv::PROCESS_DIE, pid, name);
}
bool OrvClient::launch(std::string_view app) {
    return post(orv::ACTIVITY_START, orv::kPidLaunch, app);
}
bool OrvClient::start(int pid, std::string_view app) {
    return post(orv::ACTIVITY_START, pid, app);
}
bool OrvClient::displayed(int pid, std::string_view app) {
    return post(orv::ACTIVITY_DISPLAYED, pid, app);
}
bool OrvClient::transition(int fromPid, std::string_view fromApp, int toPid,
                           std::string_view toApp) {
    return post(orv::ACTIVITY_TRANSITION, fromPid, fromApp, toPid, toApp);
}
bool OrvClient::rotate(orv::Rotate phase) {
    return post(static_cast<int>(phase));
}
bool OrvClient::listView(orv::ListView state, int pid) {
    return post(orv::LIST_VIEW, pid, state);
}
bool OrvClient::gesture(orv::Gesture gesture, int pid) {
    return post(orv::VIEW_GESTURE, pid, gesture);
}
bool OrvClient::scale(orv::Scale phase, int pid) {
    return post(orv::SCALE, pid, phase);
}
bool OrvClient::glThreadAttach(int pid, int tid) {
    return post(orv::GLTHREAD_ATTACH, pid, tid);
}
bool OrvClient::glThreadDetach(int pid, int tid) {
    return post(orv::GLTHREAD_DETTACH, pid, tid);
}
bool OrvClient::update(std::string_view policyPath) {
    return post(orv::CONFIGURATION_UPDATE, policyPath);
}
bool OrvClient::goingToSleep() {
    return post(orv::GOING_TO_SLEEP);
}
bool OrvClient::wakingUp() {
    return post(orv::WAKING_UP);
}
bool OrvClient::timeout() {
    return post(orv::TIMEOUT);
}

std::optional<std::string> OrvClient::eventMask(std::string_view app) {
    return ask(orv::CONFIGURATION_QUERY, orv::QueryBy::Name, app);
}
std::optional<std::string> OrvClient::eventMaskOfPid(int pid) {
    return ask(orv::CONFIGURATION_QUERY, orv::QueryBy::Pid, pid);
}
std::optional<std::string> OrvClient::largeHeap(int pid) {
    return ask(orv::DALVIK_LARGE_HEAP, pid);
}
std::optional<std::string> OrvClient::heapUtilization(int pid) {
    return ask(orv::DALVIK_HEAP_UTILIZATION, pid);
}
std::optional<std::string> OrvClient::hardwareAcceleration(int pid) {
    return ask(orv::HARDWARE_ACCELERATION, pid);
}
std::optional<std::string> OrvClient::thermalMask(std::string_view app) {
    return ask(orv::DISABLE_THERMAL, app);
}
std::optional<std::string> OrvClient::dump() {
    return ask(orv::DUMP_STATE);
}
