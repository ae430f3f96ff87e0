// Replacing the database at run time, and the file move with hostile paths.
#include <stdio.h>

#include <atomic>
#include <sstream>
#include <thread>

#include "PolicyTestSupport.h"

using namespace policytest;

namespace {

using UpdateTest = PolicyTest;

// Version `v` of a policy whose default reset writes "<v>.reset|" to `path` and whose entry of A
// to run writes "<v>.A|" and sets the property "test.<v>" to "<v>". A's "run_timeout" is "<v>",
// and unlisted applications take it through the fallback.
std::string versioned(const std::string& path, const std::string& v) {
    return marks(
        R"({"parser":"v1.0","version":"#","default":{"action":{"reset":{"policy":[<#.reset|>]}}},
        "applications":{"*":{"param":{"reference":"A"}},"A":{"param":{"run_timeout":"#"},
        "action":{"run":{"on_enter":[<#.A|>,
            {"method":"prop","path":"test.#","type":"string","value":"#"}]}}}}})",
        path, v);
}

TEST_F(UpdateTest, PreparedDatabaseIsMovedSafelyAndTakesOverAtTheNextAppSwitch) {
    ASSERT_EQ(0, chdir(mRoot.path().c_str()));  // where an injected relative "touch" would land
    const std::string fifo = makeFifo();
    auto doc = [&](const std::string& v) { return versioned(fifo, v); };
    OrvActionManager* manager = start(doc("v1"));
    std::thread([manager] { manager->waitDBUpdate(); }).detach();
    // Returns once every update queued before has finished (the move included).
    int updates = 0;
    auto syncUpdates = [&] {
        std::string marker = mRoot / ("none." + std::to_string(++updates));
        manager->prepareUpdateDB(marker.c_str());
        ASSERT_TRUE(mLog.waitFor("load new DB " + marker + " failed)"));
    };
    // Refused files stay where they are.
    const std::string stale = mRoot.write("stale", doc("v1"));
    manager->prepareUpdateDB(stale.c_str());
    manager->prepareUpdateDB(nullptr);
    syncUpdates();
    EXPECT_TRUE(mLog.has("DB Version is too old"));
    EXPECT_TRUE(mLog.has("load new DB " + stale + " failed)"));
    EXPECT_TRUE(mLog.has("load new DB  failed)"));  // no path given
    EXPECT_EQ(doc("v1"), orvtest::readFile(stale));

    // Accepted files are moved by mv alone, whatever their names; the last one prepared wins.
    // clang-format off
    const char* const names[] = {"new policy", "it's", "a;touch canary;b", "$(touch canary)",
        "`touch canary`", "x'; touch canary; '", "q\"$(touch canary)\"", "line\ntouch canary", "'",
        "\\'$(touch canary)\\'"};
    // clang-format on
    int version = 1;
    for (const char* name : names) {
        std::string body = doc("v" + std::to_string(++version));
        std::string path = mRoot.write(name, body);
        ASSERT_EQ(0, access(path.c_str(), F_OK)) << name;
        manager->prepareUpdateDB(path.c_str());
        syncUpdates();
        EXPECT_TRUE(mLog.has("new DB " + path + " is prepared to update)")) << name;
        EXPECT_NE(0, access(path.c_str(), F_OK)) << name;
        EXPECT_EQ(body, orvtest::readFile(mRoot / "data/orvpolicy")) << name;
        EXPECT_NE(0, access((mRoot / "canary").c_str(), F_OK)) << name;
    }
    // A failed move (the file onto itself) writes nothing to the daemon's standard error.
    const std::string target = mRoot.write("data/orvpolicy", doc("v12"));
    testing::internal::CaptureStderr();
    manager->prepareUpdateDB(target.c_str());
    syncUpdates();
    EXPECT_EQ("", testing::internal::GetCapturedStderr());

    // State changes keep the old database; the app switch runs the old default reset, swaps,
    // then enters with the new one.
    (new StateChange("launch", "run", "A", 1, 2))->send(manager);
    sync(manager);
    EXPECT_FALSE(mLog.has("DB updated"));
    expectParams(manager, {{"A", "run_timeout", "v1"}, {"U", "run_timeout", "v1"}}, "old");
    (new AppSwitch("B", 1, 2, "run", "A", 3, 4, "run"))->send(manager);
    sync(manager);
    EXPECT_EQ("v1.reset|v1.A|v1.reset|v12.A|", drainFifo());
    // The new database answers, and its literal values and paths are the ones used.
    expectParams(manager, {{"A", "run_timeout", "v12"}, {"U", "run_timeout", "v12"}}, "new");
    char value[PROPERTY_VALUE_MAX];
    property_get("test.v12", value, "");
    EXPECT_STREQ("v12", value);
    EXPECT_EQ(1, mLog.count("DB updated"));
    std::string dump;
    manager->dumpState(dump);
    EXPECT_NE(std::string::npos, dump.find("PolicyDB version: v12\n"));
}

// Updates handed over while app switches run without pause on the action thread, which swaps
// the database under the update lock. The update work must hold that lock until the new database
// is handed over: ThreadSanitizer reports a hand-over outside it. Every switch runs on the
// database that the previous one left, swapping at most once between exit and entry, and the
// last database prepared is the one in force at the end.
TEST_F(UpdateTest, UpdatesRacingAppSwitchesHandOverWholeDatabases) {
    // Debug lines pass the log capture's lock, which orders the threads for the tool and can
    // hide the race.
    property_set("sys.orv.debug.daemon", "0");
    OrvLogUpdateToggle();
    const std::string fifo = makeFifo();
    OrvActionManager* manager = start(versioned(fifo, "v1"));
    std::thread([manager] { manager->waitDBUpdate(); }).detach();

    constexpr int kLast = 40;
    std::vector<std::string> files;
    for (int v = 2; v <= kLast; ++v)
        files.push_back(
            mRoot.write("u" + std::to_string(v), versioned(fifo, "v" + std::to_string(v))));
    // A switch that counts itself done, so that the switcher keeps only a few queued.
    struct Switch : AppSwitch {
        explicit Switch(std::atomic<int>& done)
            : AppSwitch("B", 1, 2, "run", "A", 3, 4, "run"), mDone(done) {}
        void execute() override {
            AppSwitch::execute();
            ++mDone;
        }
        std::atomic<int>& mDone;
    };
    std::atomic<int> done{0};
    std::atomic<bool> stop{false};
    std::thread switcher([&] {
        for (int sent = 0; !stop; ++sent) {
            while (sent - done > 4 && !stop) std::this_thread::yield();
            (new Switch(done))->send(manager);
        }
    });
    std::string written;
    for (const std::string& file : files) {
        manager->prepareUpdateDB(file.c_str());
        ASSERT_TRUE(orvtest::eventually([&] {
            written += drainFifo();  // the action thread blocks on a full FIFO
            return mLog.has("new DB " + file + " is prepared to update)");
        })) << file;
    }
    stop = true;
    switcher.join();
    (new AppSwitch("B", 1, 2, "run", "A", 3, 4, "run"))->send(manager);
    sync(manager);
    written += drainFifo();

    // The start's reset, then "<x>.reset|<y>.A|" per switch: x is what the previous one entered
    // with.
    const std::string start = "v1.reset|";
    ASSERT_EQ(start, written.substr(0, start.size()));
    std::istringstream in(written.substr(start.size()));
    int inForce = 1, switches = 0;
    for (std::string reset, enter; std::getline(in, reset, '|') && std::getline(in, enter, '|');
         ++switches) {
        int x = 0, y = 0;
        ASSERT_EQ(2, sscanf(reset.c_str(), "v%d.reset", &x) + sscanf(enter.c_str(), "v%d.A", &y))
            << reset << enter;
        ASSERT_EQ(inForce, x) << "switch " << switches;
        ASSERT_GE(y, x) << "switch " << switches;
        ASSERT_LE(y, kLast) << "switch " << switches;
        inForce = y;
    }
    EXPECT_EQ(kLast, inForce) << switches << " switches";
    EXPECT_EQ("", errors());
    std::string dump;
    manager->dumpState(dump);
    EXPECT_NE(std::string::npos, dump.find("PolicyDB version: v" + std::to_string(kLast) + "\n"));
}

}  // namespace
