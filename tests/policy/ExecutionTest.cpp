// Action sets run for app switches and state changes, references, groups, bookkeeping, dumps.
#include <atomic>
#include <functional>
#include <thread>

#include "PolicyTestSupport.h"

using policytest::xfs;
using Action = OrvActionManager::OrvAction;

namespace {

class ExecutionTest : public policytest::PolicyTest {
protected:
    // Every app × state × key writes "<app>.<state>.<key>|"; the default reset writes "default|".
    std::string orderDocument(const std::string& fifo) {
        std::string apps;
        for (const char* app : {"A", "B"}) {
            std::string states;
            for (const char* state : {"reset", "launch", "run"}) {
                std::string keys;
                for (const char* key : {"on_exit", "on_enter", "policy"}) {
                    std::string mark = std::string(app) + "." + state + "." + key + "|";
                    keys += std::string(keys.empty() ? "" : ",") + "\"" + key + "\":[" +
                            xfs(fifo, mark) + "]";
                }
                states +=
                    std::string(states.empty() ? "" : ",") + "\"" + state + "\":{" + keys + "}";
            }
            apps += std::string(apps.empty() ? "" : ",") + "\"" + app + "\":{\"action\":{" +
                    states + "}}";
        }
        return R"({"parser":"v1.0","version":"v1","default":{"action":{"reset":{"policy":[)" +
               xfs(fifo, "default|") + "]}}},\"applications\":{" + apps + "}}";
    }
};

TEST_F(ExecutionTest, AppSwitchAndStateChangeRunTheirSetsInOrder) {
    std::string fifo = makeFifo();
    OrvActionManager* manager = start(orderDocument(fifo));
    sync(manager);
    EXPECT_EQ("default|", drainFifo());  // the policy reset at start

    struct Row {
        std::function<Action*()> make;
        const char* expected;
    };
    const Row rows[] = {
        {[] {
             return new OrvActionManager::OrvAppChangeAction("A", 1, 2, "run", "B", 3, 4, "launch");
         },
         "A.run.on_exit|default|B.launch.on_enter|B.launch.policy|"},
        // Leaving "reset" skips the default reset.
        {[] {
             return new OrvActionManager::OrvAppChangeAction("A", 1, 2, "reset", "B", 3, 4, "run");
         },
         "A.reset.on_exit|B.run.on_enter|B.run.policy|"},
        {[] { return new OrvActionManager::OrvStateChangeAction("launch", "run", "A", 1, 2); },
         "A.launch.on_exit|A.run.on_enter|A.run.policy|"},
        // A state change from or to "reset" is not special.
        {[] { return new OrvActionManager::OrvStateChangeAction("run", "reset", "B", 1, 2); },
         "B.run.on_exit|B.reset.on_enter|B.reset.policy|"},
        {[] { return new OrvActionManager::OrvStateChangeAction("reset", "launch", "B", 1, 2); },
         "B.reset.on_exit|B.launch.on_enter|B.launch.policy|"},
        // Unknown applications and states run nothing, but the default reset still runs.
        {[] {
             return new OrvActionManager::OrvAppChangeAction("X", 1, 2, "run", "Y", 3, 4, "scale");
         },
         "default|"},
    };
    for (const Row& row : rows) {
        row.make()->send(manager);
        sync(manager);
        EXPECT_EQ(row.expected, drainFifo());
    }
}

TEST_F(ExecutionTest, ReferencesSupplyMissingSetsAndParams) {
    std::string fifo = makeFifo();
    OrvActionManager* manager = start(R"({"parser":"v1.0","version":"v1","applications":{
        "A":{"param":{"large_heap":"true","event_mask":"0110"},
             "action":{"launch":{"on_enter":[)" +
                                      xfs(fifo, "A.launch|") + R"(]},
                       "run":{"on_enter":[)" +
                                      xfs(fifo, "A.run|") + R"(]}}},
        "B":{"param":{"event_mask":"1","reference":"A"},
             "action":{"reference":"A","run":{"on_enter":[)" +
                                      xfs(fifo, "B.run|") + R"(]}}},
        "C":{"param":{"reference":"B"},"action":{"reference":"B"}},
        "D":{"param":{"reference":"nowhere"},"action":{"reference":"nowhere"}}}})");

    struct Row {
        const char* app;
        const char* state;
        const char* written;
        const char* fetchLine;  // the debug line naming the set and where it came from
    };
    const Row rows[] = {
        {"B", "launch", "A.launch|", "fetch B.action.launch.on_enter(reference A)"},
        {"B", "run", "B.run|", "fetch B.action.run.on_enter"},
        {"C", "launch", "A.launch|", "fetch C.action.launch.on_enter(reference A)"},
        {"C", "run", "B.run|", "fetch C.action.run.on_enter(reference B)"},
        {"D", "run", "", "nop (no define or reference: D.action.run.on_enter)"},
    };
    for (const Row& row : rows) {
        (new OrvActionManager::OrvStateChangeAction("start", row.state, row.app, 1, 2))
            ->send(manager);
        sync(manager);
        EXPECT_EQ(row.written, drainFifo()) << row.app << " " << row.state;
        EXPECT_TRUE(mLog.has(row.fetchLine)) << row.fetchLine;
    }

    struct ParamRow {
        const char* app;
        const char* param;
        bool found;
        const char* value;
    };
    const ParamRow params[] = {
        {"B", "event_mask", true, "1"},     // own value wins
        {"B", "large_heap", true, "true"},  // from A
        {"C", "large_heap", true, "true"},  // from B, from A
        {"B", "reference", true, "A"},      // only when asked by that name
        {"D", "large_heap", false, ""},     // the referenced app does not exist
        {"Z", "large_heap", false, ""},
    };
    for (const ParamRow& row : params) {
        std::string out;
        EXPECT_EQ(row.found, manager->findAppParam(row.app, row.param, out))
            << row.app << "." << row.param;
        if (row.found) {
            EXPECT_EQ(row.value, out);
        }
    }
}

TEST_F(ExecutionTest, NestedGroupsRunInOrderAndNameTheirLocation) {
    std::string fifo = makeFifo();
    const std::string badProp = R"({"method":"prop","path":"p","type":"int","value":"5"})";
    OrvActionManager* manager =
        start(R"({"parser":"v1.0","version":"v1",
        "policy_group":{
            "boost":[)" +
              xfs(fifo, "boost|") + "," + badProp + R"(],
            "outer":[)" +
              xfs(fifo, "o1|") + R"(,{"method":"group","path":"inner"},)" + xfs(fifo, "o2|") + R"(],
            "inner":[)" +
              xfs(fifo, "i|") + "," + badProp + R"(]},
        "applications":{
            "com.example.game":{"action":{"launch":{"on_enter":[{"method":"group","path":"boost"}]},
                                          "run":{"policy":[{"method":"group","path":"outer"},
                                                           {"method":"group","path":"none"},)" +
              xfs(fifo, "end|") + R"(]}}},
            "com.example.game2":{"action":{"reference":"com.example.game"}}}})");

    (new OrvActionManager::OrvAppChangeAction("x", 1, 2, "reset", "com.example.game2", 3, 4,
                                              "launch"))
        ->send(manager);
    (new OrvActionManager::OrvStateChangeAction("launch", "run", "com.example.game", 3, 4))
        ->send(manager);
    sync(manager);
    EXPECT_EQ("boost|o1|i|o2|end|", drainFifo());
    EXPECT_TRUE(
        mLog.has("Unknown type(int). @com.example.game2.action.launch.on_enter"
                 "(reference com.example.game)[0]boost[1]prop"));
    EXPECT_TRUE(
        mLog.has("Unknown type(int). @com.example.game.action.run.policy"
                 "[0]outer[1]inner[1]prop"));
    EXPECT_TRUE(
        mLog.has("Cannot find policy_group.none. (fetch "
                 "com.example.game.action.run.policy[1]group)"));
}

TEST_F(ExecutionTest, DumpShowsVersionsAndLastDoneSet) {
    std::string fifo = makeFifo();
    OrvActionManager* manager = start(R"({"parser":"v1.0","version":"v3.10",
        "default":{"action":{"reset":{"policy":[)" +
                                      xfs(fifo, "d|") + R"(]}}},
        "applications":{"A":{"action":{"run":{"policy":[)" +
                                      xfs(fifo, "p|") + R"(]}}}}})");
    const std::string head =
        "[ActionManager]\n"
        "   Action parser   : v1.0\n"
        "   PolicyDB version: v3.10\n"
        "   PolicyDB parser version: v1.0\n"
        "   PolicyDB Encrypted : 0\n";
    std::string dump;
    manager->dumpState(dump);
    EXPECT_EQ(head +
                  "   Last Done Action Set: default.action.reset.policy\n"
                  "   Current Action Set  : \n",
              dump);

    (new OrvActionManager::OrvStateChangeAction("launch", "run", "A", 1, 2))->send(manager);
    sync(manager);  // the sync action's sets are missing: Last Done stays
    manager->dumpState(dump);
    EXPECT_EQ(head +
                  "   Last Done Action Set: A.action.run.policy\n\n"
                  "   Current Action Set  : \n",
              dump);
}

}  // namespace

namespace {

// Queries and dumps from another thread while actions run and grow the document.
TEST_F(ExecutionTest, QueriesRaceWithExecution) {
    std::string fifo = makeFifo();
    OrvActionManager* manager = start(orderDocument(fifo));
    std::atomic<bool> stop{false};
    std::thread listener([&] {
        std::string out;
        while (!stop.load()) {
            manager->findApp("A");
            manager->findApp("new.app");
            manager->findAppParam("B", "large_heap", out);
            manager->dumpState(out);
        }
    });
    for (int i = 0; i < 50; ++i) {
        std::string app = "app" + std::to_string(i);
        (new OrvActionManager::OrvAppChangeAction("A", 1, 2, "run", app.c_str(), 3, 4, "launch"))
            ->send(manager);
    }
    sync(manager);
    stop = true;
    listener.join();
    EXPECT_TRUE(manager->findApp("app49"));
    EXPECT_EQ(std::vector<std::string>{}, errors());
}

}  // namespace
