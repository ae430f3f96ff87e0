#pragma once
// Shared pieces of the policy engine tests: a started manager on a policy in a temporary root,
// a way to wait until its queue is idle, and a FIFO that shows the order of "xfs" writes.
#include <cutils/properties.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "daemon/OrvLog.h"
#include "policy/OrvActionManager.h"
#include "policy/OrvJsonActionDB.h"
#include "support/OrvTestSupport.h"

namespace policytest {

inline void enableDebug() {
    property_set("sys.orv.debug.daemon", "1");
    OrvLogUpdateToggle();
}

// An "xfs" method object writing `text` to `path`.
inline std::string xfs(const std::string& path, const std::string& text) {
    return R"({"method":"xfs","path":")" + path + R"(","type":"string","value":")" + text + R"("})";
}

// Started managers live until the process ends, like the daemon's own: their queue threads
// never stop.
inline std::vector<OrvActionManager*>& keptManagers() {
    static auto* kept = new std::vector<OrvActionManager*>();
    return *kept;
}

class PolicyTest : public ::testing::Test {
protected:
    void SetUp() override { enableDebug(); }

    // Writes `json` as the writable policy file and starts a manager on it.
    OrvActionManager* start(const std::string& json) {
        mRoot.write("data/orvpolicy", json);
        auto* manager = new OrvActionManager();
        keptManagers().push_back(manager);
        EXPECT_TRUE(manager->init());
        return manager;
    }

    // Returns once everything sent before has run.
    void sync(OrvActionManager* manager) {
        std::string app = "sync." + std::to_string(++mSyncCount);
        (new OrvActionManager::OrvStateChangeAction("run", "run", app.c_str(), -1, -1))
            ->send(manager);
        ASSERT_TRUE(mLog.waitFor("nop (no define or reference: " + app + ".action.run.policy)"));
    }

    // A FIFO that "xfs" methods can write to without blocking; read() drains it.
    std::string makeFifo(const std::string& rel = "fifo") {
        std::string path = mRoot / rel;
        EXPECT_EQ(0, mkfifo(path.c_str(), 0600));
        mFifoFd = open(path.c_str(), O_RDWR | O_NONBLOCK);
        EXPECT_GE(mFifoFd, 0);
        return path;
    }
    std::string drainFifo() {
        std::string out;
        char buf[4096];
        ssize_t n;
        while ((n = read(mFifoFd, buf, sizeof(buf))) > 0) out.append(buf, n);
        return out;
    }
    void TearDown() override {
        if (mFifoFd >= 0) close(mFifoFd);
    }

    std::vector<std::string> errors() const {
        std::vector<std::string> out;
        for (const auto& r : mLog.records())
            if (r.prio == ANDROID_LOG_ERROR) out.push_back(r.text);
        return out;
    }

    orvtest::TempRoot mRoot;
    orvtest::LogCapture mLog;
    int mFifoFd = -1;
    int mSyncCount = 0;
};

}  // namespace policytest
