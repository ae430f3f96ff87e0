// The work queue on its real thread: order, serialisation of producers, deletion after run.
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "core/OrvLog.h"
#include "core/OrvWorkQueue.h"
#include "support/OrvTestSupport.h"

namespace {

// Logs its execution and destruction; execution waits at a gate the test opens.
class GatedWork : public OrvWork {
  public:
    GatedWork(const char* name, bool del, bool open = true) : OrvWork(name, del), mOpen(open) {}
    ~GatedWork() override { ALOGI("destroyed %s", mName); }
    void execute() override {
        std::unique_lock<std::mutex> lock(mLock);
        mStarted = true;
        mCond.notify_all();
        mCond.wait(lock, [&] { return mOpen; });
        ALOGI("execute %s", mName);
    }
    void open() {
        std::lock_guard<std::mutex> lock(mLock);
        mOpen = true;
        mCond.notify_all();
    }
    void waitStarted() {
        std::unique_lock<std::mutex> lock(mLock);
        mCond.wait(lock, [&] { return mStarted; });
    }

  private:
    std::mutex mLock;
    std::condition_variable mCond;
    bool mOpen;
    bool mStarted = false;
};

// A call made on its own thread, which can be seen asleep inside it (as in a futex wait) or back.
class Caller {
  public:
    explicit Caller(std::function<void()> call)
        : mThread([this, call] {
              mTid = static_cast<pid_t>(syscall(SYS_gettid));
              call();
              mReturned = true;
          }) {}
    ~Caller() { mThread.join(); }
    bool returned() const { return mReturned; }
    // Waits until the thread sleeps inside the call or the call has returned; true if it sleeps.
    bool waitAsleepInside() const {
        EXPECT_TRUE(orvtest::eventually([&] { return mReturned || state() == 'S'; }));
        return !mReturned;
    }

  private:
    // The state letter in /proc/self/task/<tid>/stat, after the parenthesised command name.
    char state() const {
        if (mTid == 0) return 0;
        std::string stat = orvtest::readFile("/proc/self/task/" + std::to_string(mTid) + "/stat");
        size_t at = stat.rfind(')');
        return at == std::string::npos || at + 2 >= stat.size() ? 0 : stat[at + 2];
    }

    std::atomic<pid_t> mTid{0};
    std::atomic<bool> mReturned{false};
    std::thread mThread;
};

int firstFrom(const std::vector<std::string>& v, const std::string& part, int from = 0) {
    for (size_t i = from; i < v.size(); ++i)
        if (v[i].find(part) != std::string::npos) return static_cast<int>(i);
    return -1;
}

TEST(WorkQueueTest, SerialisesProducersAndDeletesOnlyFlaggedWorkAfterItsFinishLine) {
    orvtest::TempRoot root;
    orvtest::LogCapture log;
    property_set(PROP_LOG_ENABLE, "1");
    OrvLogUpdateToggle();
    // Its thread is never joined, so the queue must outlive the test.
    OrvWorkQueue& queue = *new OrvWorkQueue;
    ASSERT_EQ(0, queue.start());
    EXPECT_TRUE(queue.isStarted());

    auto* blocker = new GatedWork("blocker", false, false);
    auto* second = new GatedWork("second", true);
    queue.push_back(blocker);
    blocker->waitStarted();
    {
        // The producer waits for the queue lock while "blocker" executes: it is seen asleep in
        // push_back, never back from it, until the work is let go.
        Caller producer([&] { queue.push_back(second); });
        EXPECT_TRUE(producer.waitAsleepInside()) << "push_back returned while a work executed";
        blocker->open();
    }
    ASSERT_TRUE(log.waitFor("destroyed second"));

    auto all = log.texts();
    int blockerRan = firstFrom(all, "execute blocker");
    int finish = firstFrom(all, ">==work finish======>", blockerRan);
    int secondRan = firstFrom(all, "execute second");
    int secondFinish = firstFrom(all, ">==work finish======>", secondRan);
    ASSERT_GE(blockerRan, 0);
    EXPECT_GT(finish, blockerRan);
    EXPECT_GT(secondRan, finish);
    EXPECT_GT(firstFrom(all, "destroyed second"), secondFinish);
    EXPECT_EQ(-1, firstFrom(all, "destroyed blocker"));
    delete blocker;
}

TEST(WorkQueueTest, ManyProducersLoseNothing) {
    orvtest::LogCapture log;
    OrvWorkQueue& queue = *new OrvWorkQueue;
    ASSERT_EQ(0, queue.start());
    constexpr int kThreads = 4, kEach = 200;
    static const char* kNames[kThreads] = {"t0", "t1", "t2", "t3"};
    std::vector<std::thread> producers;
    for (int t = 0; t < kThreads; ++t) {
        producers.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) queue.push_back(new GatedWork(kNames[t], true));
        });
    }
    for (auto& p : producers) p.join();
    ASSERT_TRUE(orvtest::eventually(
        [&] { return log.countContaining("destroyed t") == kThreads * kEach; }, 20000));
    EXPECT_EQ(kThreads * kEach, log.countContaining("execute t"));
}

}  // namespace

namespace {

TEST(WorkQueueTest, CloseWaitsForTheRunningWorkAndDropsTheRest) {
    orvtest::LogCapture log;
    OrvWorkQueue idle;  // never served: what is queued is dropped, flagged work deleted
    idle.push_back(new GatedWork("queued", true));
    idle.close();
    EXPECT_TRUE(log.has("destroyed queued"));

    OrvWorkQueue& queue = *new OrvWorkQueue;
    ASSERT_EQ(0, queue.start());
    auto* running = new GatedWork("running", true, false);
    queue.push_back(running);
    running->waitStarted();
    {
        Caller closer([&] { queue.close(); });
        EXPECT_TRUE(closer.waitAsleepInside()) << "close returned while a work executed";
        running->open();
    }
    EXPECT_TRUE(log.has("destroyed running"));
    EXPECT_FALSE(log.has("execute queued"));
}

}  // namespace
