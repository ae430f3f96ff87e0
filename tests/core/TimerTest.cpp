// The one-shot timer on its real thread, with the time-out work talking to a real socket.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include <cutils/properties.h>

#include "daemon/OrvLog.h"
#include "daemon/OrvTimeoutWork.h"
#include "daemon/OrvTimer.h"
#include "support/OrvTestSupport.h"

namespace {

using Clock = std::chrono::steady_clock;

// Counts expiries and remembers when they happened.
class CountingWork : public OrvWork {
public:
    CountingWork() : OrvWork("COUNT", false) {}
    void execute() override {
        std::lock_guard<std::mutex> lock(mLock);
        mTimes.push_back(Clock::now());
        mCond.notify_all();
    }
    bool waitCount(size_t n, int timeoutMs) {
        std::unique_lock<std::mutex> lock(mLock);
        return mCond.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                              [&] { return mTimes.size() >= n; });
    }
    size_t count() {
        std::lock_guard<std::mutex> lock(mLock);
        return mTimes.size();
    }
    Clock::time_point at(size_t i) {
        std::lock_guard<std::mutex> lock(mLock);
        return mTimes.at(i);
    }

private:
    std::mutex mLock;
    std::condition_variable mCond;
    std::vector<Clock::time_point> mTimes;
};

class TimerTest : public ::testing::Test {
protected:
    void SetUp() override {
        property_set(PROP_LOG_ENABLE, "1");
        OrvLogUpdateToggle();
        OrvTimer& timer = OrvTimer::getInstance();
        timer.setTimeoutWork(&mWork);
        if (!timer.isStarted()) {
            ASSERT_EQ(0, timer.start());
        }
        ASSERT_TRUE(mLog.waitFor("timer reset done"));
    }
    void TearDown() override { OrvTimer::getInstance().setTimeoutWork(nullptr); }

    // Waits until the wall clock's sub-second part is at `ms` (so a period can be armed late in
    // a second, where the deadline's nanoseconds overflow into the next second).
    static void alignToMillisecond(int ms) {
        for (;;) {
            struct timeval now;
            gettimeofday(&now, nullptr);
            long cur = now.tv_usec / 1000;
            long wait = (ms - cur + 1000) % 1000;
            if (wait == 0) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(wait));
        }
    }

    orvtest::TempRoot mRoot;
    orvtest::LogCapture mLog{getenv("ORV_TEST_ECHO") != nullptr};
    CountingWork mWork;
};

// A loaded machine may fire late, never early; the upper slack only catches a timer that waits
// for the wrong deadline or spins.
constexpr long kSlackMs = 400;

TEST_F(TimerTest, FiresOnceAfterPeriodArmedAnywhereInASecond) {
    struct Case {
        int period;
        int alignMs;
    };
    const Case cases[] = {{100, 950}, {250, 900}, {250, 10}, {1500, 700}, {100, 500}};
    size_t fired = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "period " << c.period << " armed at ." << c.alignMs);
        mLog.clear();
        alignToMillisecond(c.alignMs);
        auto t0 = Clock::now();
        OrvTimer::getInstance().set(c.period);
        ASSERT_TRUE(mWork.waitCount(++fired, c.period + 2000));
        long elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
                               mWork.at(fired - 1) - t0)
                               .count();
        EXPECT_GE(elapsed, c.period - 1);
        EXPECT_LE(elapsed, c.period + kSlackMs);
        ASSERT_TRUE(mLog.waitFor("timer reset done"));
        // One wait per arming: a refused deadline would loop and log this line again and again.
        EXPECT_EQ(1, mLog.count("timer set done (" + std::to_string(c.period) + " ms)"));
        EXPECT_EQ(1, mLog.count(std::to_string(c.period) + " ms timeout"));
    }
    EXPECT_EQ(fired, mWork.count());
}

TEST_F(TimerTest, ReArmRestartsThePeriodFromTheLastSet) {
    auto t0 = Clock::now();
    OrvTimer::getInstance().set(1500);
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    OrvTimer::getInstance().set(1500);
    ASSERT_TRUE(mWork.waitCount(1, 5000));
    long elapsed =
            std::chrono::duration_cast<std::chrono::milliseconds>(mWork.at(0) - t0).count();
    EXPECT_GE(elapsed, 2500 - 1);
    EXPECT_LE(elapsed, 2500 + kSlackMs);
    // Nothing more fires afterwards.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(1u, mWork.count());
}

TEST_F(TimerTest, ResetAndNonPositiveSetsDisarm) {
    OrvTimer& timer = OrvTimer::getInstance();
    mLog.clear();
    timer.reset();  // unarmed: only the line
    EXPECT_TRUE(mLog.has("reset timer", "OrvTimer"));

    timer.set(1500);
    ASSERT_TRUE(mLog.waitFor("timer set done (1500 ms)"));
    timer.reset();
    ASSERT_TRUE(mLog.waitFor("timer reset done", 1));

    timer.set(1500);
    ASSERT_TRUE(mLog.waitFor("timer set done (1500 ms)", 2));
    timer.set(0);
    EXPECT_TRUE(mLog.has("set timer(0 ms)"));
    ASSERT_TRUE(mLog.waitFor("timer reset done", 2));

    timer.set(1500);
    ASSERT_TRUE(mLog.waitFor("timer set done (1500 ms)", 3));
    timer.set(-5);
    EXPECT_TRUE(mLog.has("set timer(-5 ms)"));
    ASSERT_TRUE(mLog.waitFor("timer reset done", 3));

    // Long enough for any of the three to have fired (the period is long so that a loaded
    // machine cannot let one expire before its disarm).
    std::this_thread::sleep_for(std::chrono::milliseconds(1800));
    EXPECT_EQ(0u, mWork.count());
    EXPECT_EQ(0, mLog.countContaining("ms timeout"));
}

// A listening socket where the daemon's control socket would be.
class FakeDaemonSocket {
public:
    explicit FakeDaemonSocket(const std::string& root) {
        std::string dir = root + "/dev/socket";
        mkdir(dir.c_str(), 0755);
        mPath = dir + "/orvd";
        mFd = socket(AF_UNIX, SOCK_STREAM, 0);
        struct sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", mPath.c_str());
        bind(mFd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr));
        listen(mFd, 4);
    }
    ~FakeDaemonSocket() { close(mFd); }
    int accept() { return ::accept(mFd, nullptr, nullptr); }

    static std::string readFrame(int fd) {
        char buf[16] = {};
        ssize_t n = recv(fd, buf, 7, MSG_WAITALL);
        return n > 0 ? std::string(buf, n) : std::string();
    }

private:
    std::string mPath;
    int mFd;
};

class TimeoutWorkTest : public TimerTest {
protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);  // as the daemon does
        TimerTest::SetUp();
        OrvTimer::getInstance().setTimeoutWork(&mTimeoutWork);
    }
    OrvTimeoutWork mTimeoutWork;
};

TEST_F(TimeoutWorkTest, SendsFrameOverOneKeptConnectionAndReconnectsAfterFailure) {
    FakeDaemonSocket daemon(mRoot.path());
    OrvTimer& timer = OrvTimer::getInstance();

    timer.set(50);
    int conn = daemon.accept();
    ASSERT_GE(conn, 0);
    EXPECT_EQ("[500,0]", FakeDaemonSocket::readFrame(conn));
    ASSERT_TRUE(mLog.waitUntil([&] { return mLog.countContaining("TimeoutMsg sent") == 1; }));

    timer.set(50);  // reuses the connection
    EXPECT_EQ("[500,0]", FakeDaemonSocket::readFrame(conn));
    ASSERT_TRUE(mLog.waitUntil([&] { return mLog.countContaining("TimeoutMsg sent") == 2; }));
    EXPECT_EQ(1, mLog.count("creating socket..."));

    close(conn);  // the daemon side goes away: the next send fails and that time-out is lost
    timer.set(50);
    ASSERT_TRUE(mLog.waitUntil(
            [&] { return mLog.countContaining("TimeoutMsg send failed (ret=-1)") == 1; }));

    timer.set(50);  // and the one after reconnects
    int conn2 = daemon.accept();
    ASSERT_GE(conn2, 0);
    EXPECT_EQ("[500,0]", FakeDaemonSocket::readFrame(conn2));
    EXPECT_EQ(2, mLog.count("creating socket..."));
    close(conn2);
}

TEST_F(TimeoutWorkTest, NoListenerLogsConnectFailureAndDoesNotRetryByItself) {
    OrvTimer::getInstance().set(50);
    ASSERT_TRUE(mLog.waitFor("socket connect fail (ret=-1)\n"));
    EXPECT_EQ(-1, mTimeoutWork.getSocket());
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(1, mLog.count("socket connect fail (ret=-1)\n"));
    EXPECT_EQ(1, mLog.count("50 ms timeout"));
}

}  // namespace
