#pragma once
// Shared pieces of the policy engine tests: a started manager on a policy in a temporary root,
// a way to wait until its queue is idle, and a FIFO that shows the order of "xfs" writes.
#include <cutils/properties.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>
#include <memory>
#include <string>
#include <vector>

#include "core/OrvLog.h"
#include "policy/OrvActionManager.h"
#include "policy/OrvJsonActionDB.h"
#include "support/OrvTestSupport.h"
#include "tools/codec/OrvPolicyEncoder.h"

namespace policytest {

using AppSwitch = OrvActionManager::OrvAppChangeAction;
using StateChange = OrvActionManager::OrvStateChangeAction;

inline std::string xfs(const std::string& path, const std::string& text) {
    return R"({"method":"xfs","path":")" + path + R"(","type":"string","value":")" + text + R"("})";
}

// Replaces each "<text>" in `doc` with an "xfs" method writing `text` to `path`, after replacing
// each '#' with `fill`.
inline std::string marks(std::string doc, const std::string& path, const std::string& fill = "") {
    for (size_t i = 0; (i = doc.find('#', i)) != std::string::npos; i += fill.size())
        doc.replace(i, 1, fill);
    for (size_t i; (i = doc.find('<')) != std::string::npos;) {
        size_t end = doc.find('>', i);
        doc.replace(i, end + 1 - i, xfs(path, doc.substr(i + 1, end - i - 1)));
    }
    return doc;
}

// `json` in the protected form, reproducibly for one `seed`.
inline std::string protect(const std::string& json, unsigned seed) {
    std::string text, error;
    OrvProtectOptions opts;
    opts.rngSeed = seed;
    EXPECT_TRUE(orvProtectPolicy(json, opts, text, &error)) << error;
    return text;
}

// An unprotected database on `text`.
inline std::unique_ptr<OrvJsonActionDB> parseDB(const std::string& text) {
    auto* root = new Json::Value();
    EXPECT_TRUE(Json::Reader().parse(text, *root)) << text;
    return std::make_unique<OrvJsonActionDB>(root, false);
}

// A parameter query and its answer: the value, or null when it is not found.
struct ParamRow {
    const char* app;
    const char* param;
    const char* value;
};

// Asks every row twice, as repeated queries must answer alike; a miss leaves the output alone.
inline void expectParams(OrvActionManager* manager, const std::vector<ParamRow>& rows,
                         const std::string& when) {
    for (int round = 0; round < 2; ++round) {
        for (const ParamRow& r : rows) {
            std::string out = "unset";
            EXPECT_EQ(r.value != nullptr, manager->findAppParam(r.app, r.param, out))
                << r.app << " " << r.param << " " << when;
            EXPECT_EQ(r.value ? r.value : "unset", out) << r.app << " " << r.param << " " << when;
        }
    }
}

class PolicyTest : public ::testing::Test {
  protected:
    void SetUp() override {
        property_set("sys.orv.debug.daemon", "1");
        OrvLogUpdateToggle();
    }
    void TearDown() override {
        if (mFifoFd >= 0) close(mFifoFd);
    }

    // Writes `text` as the writable policy file and starts a manager on it. Managers are never
    // freed, like the daemon's: their queue threads never stop.
    OrvActionManager* start(const std::string& text) {
        mRoot.write("data/orvpolicy", text);
        static auto* kept = new std::vector<OrvActionManager*>();
        kept->push_back(new OrvActionManager());
        EXPECT_TRUE(kept->back()->init());
        return kept->back();
    }

    // Returns once everything sent before has finished: the queue runs one record at a time.
    void sync(OrvActionManager* manager) {
        struct Marker : OrvActionManager::OrvAction {
            Marker() : OrvAction("", "", "", -1, -1) {}
            void execute() override { done.set_value(); }
            std::promise<void> done;
        };
        auto* marker = new Marker();  // freed by the queue, after the future got its state
        std::future<void> done = marker->done.get_future();
        marker->send(manager);
        ASSERT_EQ(std::future_status::ready,
                  done.wait_for(std::chrono::milliseconds(orvtest::kWaitMs)));
    }

    // A FIFO that "xfs" methods can write to without blocking; drainFifo() reads it.
    std::string makeFifo() {
        std::string path = mRoot / "fifo";
        EXPECT_EQ(0, mkfifo(path.c_str(), 0600));
        mFifoFd = open(path.c_str(), O_RDWR | O_NONBLOCK);
        EXPECT_GE(mFifoFd, 0);
        return path;
    }
    std::string drainFifo() {
        std::string out;
        char buf[4096];
        for (ssize_t n; (n = read(mFifoFd, buf, sizeof(buf))) > 0;) out.append(buf, n);
        return out;
    }

    // The error lines logged so far, one per line.
    std::string errors() const {
        std::string out;
        for (const auto& r : mLog.records())
            if (r.prio == ANDROID_LOG_ERROR) out += (out.empty() ? "" : "\n") + r.text;
        return out;
    }

    orvtest::TempRoot mRoot;
    orvtest::LogCapture mLog;
    int mFifoFd = -1;
};

}  // namespace policytest
