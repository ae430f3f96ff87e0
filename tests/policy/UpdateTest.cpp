// Replacing the database at run time, and the file move with hostile paths.
#include <thread>

#include "PolicyTestSupport.h"

using namespace policytest;

namespace {

class UpdateTest : public PolicyTest {
  protected:
    // Version `v`; its default reset writes "<v>.reset|", A's entry to run "<v>.A|".
    std::string doc(const std::string& v) {
        return marks(
            R"({"parser":"v1.0","version":"#","default":{"action":{"reset":{"policy":[<#.reset|>]}}},
            "applications":{"A":{"action":{"run":{"on_enter":[<#.A|>]}}}}})",
            mFifo, v);
    }
    OrvActionManager* startWithUpdater(const std::string& json) {
        OrvActionManager* manager = start(json);
        std::thread([manager] { manager->waitDBUpdate(); }).detach();
        return manager;
    }
    // Returns once every update queued before has finished (the move included).
    void syncUpdates(OrvActionManager* manager) {
        std::string marker = mRoot / ("none." + std::to_string(++mUpdateSync));
        manager->prepareUpdateDB(marker.c_str());
        ASSERT_TRUE(mLog.waitFor("load new DB " + marker + " failed)"));
    }

    std::string mFifo;
    int mUpdateSync = 0;
};

TEST_F(UpdateTest, NewDatabaseTakesOverAtTheNextAppSwitch) {
    mFifo = makeFifo();
    OrvActionManager* manager = startWithUpdater(doc("v1"));
    // Refused files stay where they are; of two good ones the later wins.
    const std::string stale = mRoot.write("stale", doc("v1"));
    const std::string v2 = mRoot.write("v2", doc("v2")), v3 = mRoot.write("v3", doc("v3"));
    for (const char* path : {stale.c_str(), (const char*)nullptr, v2.c_str(), v3.c_str()})
        manager->prepareUpdateDB(path);
    syncUpdates(manager);
    EXPECT_TRUE(mLog.has("DB Version is too old"));
    EXPECT_TRUE(mLog.has("load new DB " + stale + " failed)"));
    EXPECT_TRUE(mLog.has("load new DB  failed)"));  // no path given
    EXPECT_TRUE(mLog.has("new DB " + v3 + " is prepared to update)"));
    EXPECT_EQ(doc("v1"), orvtest::readFile(stale));
    EXPECT_NE(0, access(v3.c_str(), F_OK));
    EXPECT_EQ(doc("v3"), orvtest::readFile(mRoot / "data/orvpolicy"));

    // State changes keep the old database; the app switch runs the old default reset, swaps,
    // then enters with the new one.
    (new StateChange("launch", "run", "A", 1, 2))->send(manager);
    sync(manager);
    EXPECT_FALSE(mLog.has("DB updated"));
    (new AppSwitch("B", 1, 2, "run", "A", 3, 4, "run"))->send(manager);
    sync(manager);
    EXPECT_EQ("v1.reset|v1.A|v1.reset|v3.A|", drainFifo());
    EXPECT_EQ(1, mLog.count("DB updated"));
    std::string dump;
    manager->dumpState(dump);
    EXPECT_NE(std::string::npos, dump.find("PolicyDB version: v3\n"));
}

TEST_F(UpdateTest, MoveRunsNothingButMv) {
    ASSERT_EQ(0, chdir(mRoot.path().c_str()));  // where an injected relative "touch" would land
    mFifo = mRoot / "unused";
    OrvActionManager* manager = startWithUpdater(doc("v1"));
    const char* const names[] = {
        "new policy",
        "it's",
        "a;touch canary;b",
        "$(touch canary)",
        "`touch canary`",
        "x'; touch canary; '",
        "q\"$(touch canary)\"",
        "line\ntouch canary",
        "'",
        "\\'$(touch canary)\\'",
    };
    int version = 1;
    for (const char* name : names) {
        std::string body = doc("v" + std::to_string(++version));
        std::string path = mRoot.write(name, body);
        ASSERT_EQ(0, access(path.c_str(), F_OK)) << name;
        manager->prepareUpdateDB(path.c_str());
        syncUpdates(manager);
        EXPECT_TRUE(mLog.has("new DB " + path + " is prepared to update)")) << name;
        EXPECT_NE(0, access(path.c_str(), F_OK)) << name;
        EXPECT_EQ(body, orvtest::readFile(mRoot / "data/orvpolicy")) << name;
        EXPECT_NE(0, access((mRoot / "canary").c_str(), F_OK)) << name;
    }
}

}  // namespace
