// Replacing the database at run time, and the file move with hostile paths.
#include <fstream>
#include <thread>

#include "PolicyTestSupport.h"

using policytest::xfs;

namespace {

class UpdateTest : public policytest::PolicyTest {
protected:
    std::string doc(const std::string& version, const std::string& mark) {
        return R"({"parser":"v1.0","version":")" + version +
               R"(","default":{"action":{"reset":{"policy":[)" + xfs(mFifo, mark + ".reset|") +
               R"(]}}},"applications":{"A":{"action":{"run":{"on_enter":[)" +
               xfs(mFifo, mark + ".A.enter|") + R"(]}}}}})";
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
    OrvActionManager* manager = startWithUpdater(doc("v1", "old"));
    const std::string incoming = mRoot.write("incoming", doc("v2", "new"));
    manager->prepareUpdateDB(incoming.c_str());
    syncUpdates(manager);
    EXPECT_TRUE(mLog.has("new DB " + incoming + " is prepared to update)"));
    EXPECT_NE(0, access(incoming.c_str(), F_OK));
    EXPECT_EQ(doc("v2", "new"), orvtest::readFile(mRoot / "data/orvpolicy"));

    // State changes keep the old database.
    (new OrvActionManager::OrvStateChangeAction("launch", "run", "A", 1, 2))->send(manager);
    sync(manager);
    EXPECT_FALSE(mLog.has("DB updated"));
    // The app switch runs the old default reset, swaps, then enters with the new one.
    (new OrvActionManager::OrvAppChangeAction("B", 1, 2, "run", "A", 3, 4, "run"))->send(manager);
    sync(manager);
    EXPECT_EQ("old.reset|old.A.enter|old.reset|new.A.enter|", drainFifo());
    EXPECT_EQ(1, mLog.count("DB updated"));
    std::string dump;
    manager->dumpState(dump);
    EXPECT_NE(std::string::npos, dump.find("PolicyDB version: v2\n"));
}

TEST_F(UpdateTest, RefusedUpdateIsNotMovedAndLaterUpdateWins) {
    mFifo = makeFifo();
    OrvActionManager* manager = startWithUpdater(doc("v5", "cur"));
    const std::string old = mRoot.write("old", doc("v5", "same"));
    manager->prepareUpdateDB(old.c_str());
    const std::string second = mRoot.write("second", doc("v6", "second"));
    const std::string third = mRoot.write("third", doc("v7", "third"));
    manager->prepareUpdateDB(second.c_str());
    manager->prepareUpdateDB(third.c_str());
    manager->prepareUpdateDB(nullptr);
    syncUpdates(manager);
    EXPECT_TRUE(mLog.has("DB Version is too old"));
    EXPECT_TRUE(mLog.has("load new DB " + old + " failed)"));
    EXPECT_TRUE(mLog.has("load new DB  failed)"));  // no path given
    EXPECT_EQ(doc("v5", "same"), orvtest::readFile(old));
    EXPECT_EQ(doc("v7", "third"), orvtest::readFile(mRoot / "data/orvpolicy"));

    drainFifo();
    (new OrvActionManager::OrvAppChangeAction("B", 1, 2, "reset", "A", 3, 4, "run"))->send(manager);
    sync(manager);
    EXPECT_EQ("third.A.enter|", drainFifo());
}

TEST_F(UpdateTest, MoveRunsNothingButMv) {
    ASSERT_EQ(0, chdir(mRoot.path().c_str()));  // where an injected relative "touch" would land
    mFifo = mRoot / "unused";
    OrvActionManager* manager = startWithUpdater(doc("v1", "x"));
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
        ++version;
        std::string body = doc("v" + std::to_string(version), "m" + std::to_string(version));
        // Written directly: the shared helper creates directories through the shell.
        std::string path = mRoot / name;
        std::ofstream(path, std::ios::binary) << body;
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
