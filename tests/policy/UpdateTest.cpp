// Replacing the database at run time, and the file move with hostile paths.
#include <thread>

#include "PolicyTestSupport.h"

using namespace policytest;

namespace {

using UpdateTest = PolicyTest;

TEST_F(UpdateTest, PreparedDatabaseIsMovedSafelyAndTakesOverAtTheNextAppSwitch) {
    ASSERT_EQ(0, chdir(mRoot.path().c_str()));  // where an injected relative "touch" would land
    const std::string fifo = makeFifo();
    // Version `v`; its default reset writes "<v>.reset|", A's entry to run "<v>.A|".
    auto doc = [&](const std::string& v) {
        return marks(
            R"({"parser":"v1.0","version":"#","default":{"action":{"reset":{"policy":[<#.reset|>]}}},
            "applications":{"A":{"action":{"run":{"on_enter":[<#.A|>]}}}}})",
            fifo, v);
    };
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
    (new AppSwitch("B", 1, 2, "run", "A", 3, 4, "run"))->send(manager);
    sync(manager);
    EXPECT_EQ("v1.reset|v1.A|v1.reset|v12.A|", drainFifo());
    EXPECT_EQ(1, mLog.count("DB updated"));
    std::string dump;
    manager->dumpState(dump);
    EXPECT_NE(std::string::npos, dump.find("PolicyDB version: v12\n"));
}

}  // namespace
