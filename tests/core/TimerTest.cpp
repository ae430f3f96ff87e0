// The one-shot timer on its real thread, with the time-out work talking to a real socket.
#include <cutils/properties.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

#include "core/OrvLog.h"
#include "core/OrvTimeoutWork.h"
#include "core/OrvTimer.h"
#include "support/OrvTestSupport.h"

// The wall clock as this process reads it, an hour ahead while sWallClockAhead is set: as if
// the clock was stepped back just after a time-out was armed. The kernel's own clock, which
// timed waits on the wall clock use, stays where it is. (Link-time interposition.)
static std::atomic<bool> sWallClockAhead{false};

extern "C" int clock_gettime(clockid_t clock, struct timespec* ts) {
    int ret = static_cast<int>(syscall(SYS_clock_gettime, clock, ts));
    if (ret == 0 && clock == CLOCK_REALTIME && sWallClockAhead) ts->tv_sec += 3600;
    return ret;
}

extern "C" int gettimeofday(struct timeval* tv, void*) {
    struct timespec ts;
    int ret = clock_gettime(CLOCK_REALTIME, &ts);
    tv->tv_sec = ts.tv_sec;
    tv->tv_usec = ts.tv_nsec / 1000;
    return ret;
}

namespace {

using Clock = std::chrono::steady_clock;
// A loaded machine may fire late, never early. A deadline off by the carried second is a whole
// second late; anything less is left to the scheduler.
constexpr long kSlackMs = 999;

// Remembers when each expiry happened.
class CountingWork : public OrvWork {
  public:
    CountingWork() : OrvWork("COUNT", false) {}
    void execute() override {
        std::lock_guard<std::mutex> lock(mLock);
        mTimes.push_back(Clock::now());
        mCond.notify_all();
    }
    // Milliseconds from `t0` to expiry number `n` (1-based), or -1 if it did not come in time.
    long waitExpiry(size_t n, Clock::time_point t0, int timeoutMs) {
        std::unique_lock<std::mutex> lock(mLock);
        if (!mCond.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                            [&] { return mTimes.size() >= n; }))
            return -1;
        return std::chrono::duration_cast<std::chrono::milliseconds>(mTimes[n - 1] - t0).count();
    }
    size_t count() {
        std::lock_guard<std::mutex> lock(mLock);
        return mTimes.size();
    }

  private:
    std::mutex mLock;
    std::condition_variable mCond;
    std::vector<Clock::time_point> mTimes;
};

class TimerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);  // as the daemon does
        property_set(PROP_LOG_ENABLE, "1");
        OrvLogUpdateToggle();
        mTimer.setTimeoutWork(&mWork);
        if (!mTimer.isStarted()) {
            ASSERT_EQ(0, mTimer.start());
            ASSERT_TRUE(mLog.waitFor("timer reset done"));
        }
        mLog.clear();
    }
    void TearDown() override { mTimer.setTimeoutWork(nullptr); }
    // Waits until the wall clock's sub-second part is `ms` or a little past it: late in a second
    // the deadline's nanoseconds overflow into the next second.
    static void alignToMillisecond(int ms) {
        for (;;) {
            struct timeval now;
            gettimeofday(&now, nullptr);
            long past = (now.tv_usec / 1000 - ms + 1000) % 1000;
            if (past < 40) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(1000 - past));
        }
    }

    orvtest::TempRoot mRoot;
    orvtest::LogCapture mLog;
    CountingWork mWork;
    OrvTimer& mTimer = OrvTimer::getInstance();
};

TEST_F(TimerTest, FiresOnceAfterPeriodArmedAnywhereInASecond) {
    const std::pair<int, int> cases[] = {{100, 950}, {250, 900}, {250, 10}, {1500, 700}};
    size_t fired = 0;
    for (auto [period, alignMs] : cases) {
        SCOPED_TRACE(testing::Message() << period << " ms armed at ." << alignMs);
        mLog.clear();
        alignToMillisecond(alignMs);
        auto t0 = Clock::now();
        mTimer.set(period);
        long elapsed = mWork.waitExpiry(++fired, t0, period + orvtest::kWaitMs);
        EXPECT_GE(elapsed, period - 1);
        EXPECT_LE(elapsed, period + kSlackMs);
        ASSERT_TRUE(mLog.waitFor("timer reset done"));
        // One wait per arming: a refused deadline would loop and log this line again and again.
        EXPECT_EQ(1, mLog.count("timer set done (" + std::to_string(period) + " ms)"));
        EXPECT_EQ(1, mLog.count(std::to_string(period) + " ms timeout"));
    }
}

TEST_F(TimerTest, AWallClockStepNeitherStretchesNorCutsATimeout) {
    for (bool ahead : {true, false}) {
        SCOPED_TRACE(ahead ? "wall clock an hour ahead when armed" : "wall clock right");
        sWallClockAhead = ahead;
        auto t0 = Clock::now();
        mTimer.set(100);
        long elapsed = mWork.waitExpiry(ahead ? 1 : 2, t0, 100 + orvtest::kWaitMs);
        sWallClockAhead = false;
        EXPECT_GE(elapsed, 100 - 1);
        EXPECT_LE(elapsed, 100 + kSlackMs);
        if (elapsed < 0) mTimer.reset();
    }
}

TEST_F(TimerTest, ReArmRestartsThePeriodFromTheLastSet) {
    mTimer.set(1500);
    ASSERT_TRUE(mLog.waitFor("timer set done (1500 ms)"));
    // A fifth of the first period: a wake-up even a second late still re-arms before it ends.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ASSERT_EQ(0u, mWork.count());
    auto t1 = Clock::now();
    mTimer.set(1500);
    long elapsed = mWork.waitExpiry(1, t1, 1500 + orvtest::kWaitMs);
    EXPECT_GE(elapsed, 1500 - 1);
    EXPECT_LE(elapsed, 1500 + kSlackMs);
    EXPECT_EQ(2, mLog.count("timer set done (1500 ms)"));  // one wait per set, none more
}

TEST_F(TimerTest, ResetAndNonPositiveSetsDisarm) {
    mTimer.reset();  // unarmed: only the line
    EXPECT_EQ(std::vector<std::string>{"reset timer"}, mLog.texts("OrvTimer"));
    // The period is long so that a loaded machine cannot let one expire before its disarm.
    const std::function<void()> disarms[] = {[&] { mTimer.reset(); }, [&] { mTimer.set(0); },
                                             [&] { mTimer.set(-5); }};
    // "timer reset done" means the thread waits without a deadline: an arming the disarm missed
    // would have fired before it.
    int n = 0;
    for (const auto& disarm : disarms) {
        mTimer.set(1500);
        ASSERT_TRUE(mLog.waitFor("timer set done (1500 ms)", ++n));
        disarm();
        ASSERT_TRUE(mLog.waitFor("timer reset done", n));
    }
    EXPECT_TRUE(mLog.has("set timer(0 ms)"));
    EXPECT_TRUE(mLog.has("set timer(-5 ms)"));
    EXPECT_EQ(0u, mWork.count());
}

// Accepts where the daemon's control socket would be.
int listenAsDaemon(const std::string& root, int backlog = 4) {
    std::filesystem::create_directories(root + "/dev/socket");
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s/dev/socket/orvd", root.c_str());
    bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr));
    listen(fd, backlog);
    return fd;
}

std::string readFrame(int fd) {
    char buf[8] = {};
    return recv(fd, buf, 7, MSG_WAITALL) == 7 ? buf : "";
}

TEST_F(TimerTest, TimeoutWorkKeepsOneConnectionAndReconnectsAfterAFailedSend) {
    OrvTimeoutWork work;
    mTimer.setTimeoutWork(&work);
    mTimer.set(50);  // nobody listens yet: logged, and not retried by itself
    ASSERT_TRUE(mLog.waitFor("socket connect fail (ret=-1)\n"));

    int daemon = listenAsDaemon(mRoot.path());
    auto sent = [&](int n) {
        return orvtest::eventually([&] { return mLog.countContaining("TimeoutMsg sent") == n; });
    };
    mTimer.set(50);
    int conn = accept(daemon, nullptr, nullptr);
    EXPECT_EQ("[500,0]", readFrame(conn));
    ASSERT_TRUE(sent(1));
    mTimer.set(50);  // same connection
    EXPECT_EQ("[500,0]", readFrame(conn));
    ASSERT_TRUE(sent(2));
    EXPECT_EQ(2, mLog.count("creating socket..."));

    close(conn);  // the next send fails and that time-out is lost
    mTimer.set(50);
    ASSERT_TRUE(orvtest::eventually(
        [&] { return mLog.countContaining("TimeoutMsg send failed (ret=-1)") == 1; }));
    mTimer.set(50);  // the one after reconnects
    int conn2 = accept(daemon, nullptr, nullptr);
    EXPECT_EQ("[500,0]", readFrame(conn2));
    EXPECT_EQ(3, mLog.count("creating socket..."));
    EXPECT_EQ(1, mLog.count("socket connect fail (ret=-1)\n"));
    mTimer.setTimeoutWork(nullptr);  // waits for a running expiry: `work` dies with this scope
    close(conn2);
    close(daemon);
}

// The listener stuck behind a slow action accepts nobody; the timer must fail its delivery at
// once instead of waiting in connect() with its lock held, where the listener's next reset()
// would wait behind it for good.
TEST_F(TimerTest, AnExpiryNeverWaitsOnAListenerThatAcceptsNobody) {
    OrvTimeoutWork work;
    mTimer.setTimeoutWork(&work);
    int daemon = listenAsDaemon(mRoot.path(), 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s/dev/socket/orvd", mRoot.path().c_str());
    std::vector<int> queued;  // clients waiting to be accepted, until the backlog is full
    for (;;) {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
        if (connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) != 0) {
            close(fd);
            break;
        }
        queued.push_back(fd);
    }
    mTimer.set(50);
    EXPECT_TRUE(mLog.waitFor("socket connect fail (ret=-1)\n"));
    std::atomic<bool> done{false};
    std::thread listener([&] {
        mTimer.reset();
        done = true;
    });
    EXPECT_TRUE(orvtest::eventually([&] { return done.load(); }));
    // Accepting again releases a timer that did wait, so that the test ends either way.
    fcntl(daemon, F_SETFL, O_NONBLOCK);
    std::vector<int> accepted;
    auto acceptAll = [&] {
        for (int fd; (fd = accept(daemon, nullptr, nullptr)) >= 0;) accepted.push_back(fd);
    };
    EXPECT_TRUE(orvtest::eventually([&] {
        acceptAll();
        return done.load();
    }));
    listener.join();
    acceptAll();
    // With room again, the next time-out connects and is delivered.
    mTimer.set(50);
    ASSERT_TRUE(orvtest::eventually([&] { return mLog.countContaining("TimeoutMsg sent") == 1; }));
    acceptAll();
    ASSERT_FALSE(accepted.empty());
    EXPECT_EQ("[500,0]", readFrame(accepted.back()));
    mTimer.setTimeoutWork(nullptr);
    for (int fd : queued) close(fd);
    for (int fd : accepted) close(fd);
    close(daemon);
}

}  // namespace
