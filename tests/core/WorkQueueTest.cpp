// The work queue on its real thread: order, serialisation of producers, deletion after run.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include <cutils/properties.h>

#include "daemon/OrvLog.h"
#include "daemon/OrvWorkQueue.h"
#include "support/OrvTestSupport.h"

namespace {

// Records its execution in the log so order can be checked against the queue's own lines.
class LoggingWork : public OrvWork {
public:
    LoggingWork(const char* name, bool del, std::atomic<int>* destroyed = nullptr)
        : OrvWork(name, del), mDestroyed(destroyed) {}
    ~LoggingWork() override {
        if (mDestroyed) ++*mDestroyed;
        __android_log_print(ANDROID_LOG_INFO, "Test", "destroyed %s", mName);
    }
    void execute() override {
        std::unique_lock<std::mutex> lock(mGateLock);
        mStarted = true;
        mGateCond.notify_all();
        mGateCond.wait(lock, [&] { return mOpen; });
        __android_log_print(ANDROID_LOG_INFO, "Test", "execute %s", mName);
    }
    void open() {
        std::lock_guard<std::mutex> lock(mGateLock);
        mOpen = true;
        mGateCond.notify_all();
    }
    void waitStarted() {
        std::unique_lock<std::mutex> lock(mGateLock);
        mGateCond.wait(lock, [&] { return mStarted; });
    }

private:
    std::atomic<int>* mDestroyed;
    std::mutex mGateLock;
    std::condition_variable mGateCond;
    bool mOpen = false;
    bool mStarted = false;
};

class WorkQueueTest : public ::testing::Test {
protected:
    void SetUp() override {
        property_set(PROP_LOG_ENABLE, "1");
        OrvLogUpdateToggle();
        ASSERT_EQ(0, mQueue.start());
        EXPECT_TRUE(mQueue.isStarted());
    }
    orvtest::TempRoot mRoot;
    orvtest::LogCapture mLog;
    // Its thread is never joined, so the queue must outlive the fixture.
    OrvWorkQueue& mQueue = *new OrvWorkQueue;
};

int indexOf(const std::vector<std::string>& v, const std::string& s, int from = 0) {
    for (size_t i = from; i < v.size(); ++i)
        if (v[i] == s) return static_cast<int>(i);
    return -1;
}

TEST_F(WorkQueueTest, RunsInOrderAndPushWaitsForRunningWork) {
    auto* first = new LoggingWork("first", true);
    auto* second = new LoggingWork("second", true);
    first->open();
    mQueue.push_back(first);
    ASSERT_TRUE(mLog.waitFor("destroyed first"));

    auto* blocker = new LoggingWork("blocker", false);
    mQueue.push_back(blocker);
    blocker->waitStarted();
    std::atomic<bool> pushed{false};
    std::thread producer([&] {
        mQueue.push_back(second);
        pushed = true;
    });
    // The producer cannot get the queue lock while "blocker" executes.
    EXPECT_FALSE(pushed.load());
    blocker->open();
    producer.join();
    second->open();
    ASSERT_TRUE(mLog.waitFor("destroyed second"));

    auto all = mLog.texts();
    int blockerDone = indexOf(all, "execute blocker");
    ASSERT_GE(blockerDone, 0);
    // "second" starts only after blocker's finish line.
    int finish = -1;
    for (size_t i = blockerDone; i < all.size(); ++i) {
        if (all[i].find(">==work finish======>") != std::string::npos) {
            finish = static_cast<int>(i);
            break;
        }
    }
    ASSERT_GT(finish, blockerDone);
    EXPECT_GT(indexOf(all, "execute second"), finish);
    EXPECT_EQ(0, mLog.count("destroyed blocker"));
    delete blocker;
}

TEST_F(WorkQueueTest, DeletesOnlyFlaggedWorkAfterItsFinishLine) {
    std::atomic<int> destroyed{0};
    auto* keep = new LoggingWork("keep", false, &destroyed);
    auto* drop = new LoggingWork("drop", true, &destroyed);
    keep->open();
    drop->open();
    mQueue.push_back(keep);
    mQueue.push_back(drop);
    ASSERT_TRUE(mLog.waitFor("destroyed drop"));
    EXPECT_EQ(1, destroyed.load());

    auto all = mLog.texts();
    int exec = indexOf(all, "execute drop");
    int gone = indexOf(all, "destroyed drop");
    bool finishBetween = false;
    for (int i = exec; i < gone; ++i)
        finishBetween |= all[i].find(">==work finish======>") != std::string::npos;
    EXPECT_TRUE(finishBetween);
    delete keep;
}

TEST_F(WorkQueueTest, ManyProducersLoseNothing) {
    constexpr int kThreads = 4, kEach = 200;
    std::atomic<int> destroyed{0};
    std::vector<std::thread> producers;
    for (int t = 0; t < kThreads; ++t) {
        producers.emplace_back([&] {
            for (int i = 0; i < kEach; ++i) {
                auto* w = new LoggingWork("bulk", true, &destroyed);
                w->open();
                mQueue.push_back(w);
            }
        });
    }
    for (auto& p : producers) p.join();
    ASSERT_TRUE(mLog.waitUntil([&] { return destroyed.load() == kThreads * kEach; }, 20000));
}

}  // namespace
