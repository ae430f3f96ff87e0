// Action sets run for app switches and state changes, references, groups, bookkeeping, dumps.
#include <atomic>
#include <thread>
#include <tuple>

#include "PolicyTestSupport.h"

using namespace policytest;

namespace {

// Every app × state × key writes "<app>.<state>.<key>|"; the default reset writes "default|".
std::string orderDocument(const std::string& fifo) {
    const char* const keys =
        R"({"on_exit":[<#.on_exit|>],"on_enter":[<#.on_enter|>],"policy":[<#.policy|>]})";
    std::string apps;
    for (std::string app : {"A", "B"}) {
        std::string states;
        for (std::string state : {"reset", "launch", "run"})
            states += ",\"" + state + "\":" + marks(keys, fifo, app + "." + state);
        apps += ",\"" + app + "\":{\"action\":{" + states.substr(1) + "}}";
    }
    const char* const head = R"({"parser":"v1.0","version":"v3.10",
        "default":{"action":{"reset":{"policy":[<default|>]}}},"applications":{)";
    return marks(head, fifo) + apps.substr(1) + "}}";
}

using ExecutionTest = PolicyTest;

TEST_F(ExecutionTest, AppSwitchAndStateChangeRunTheirSetsInOrder) {
    std::string fifo = makeFifo();
    OrvActionManager* manager = start(orderDocument(fifo));
    sync(manager);
    EXPECT_EQ("default|", drainFifo());  // the policy reset at start
    const std::string head =
        "[ActionManager]\n   Action parser   : v1.0\n   PolicyDB version: v3.10\n"
        "   PolicyDB parser version: v1.0\n   PolicyDB Encrypted : 0\n   Last Done Action Set: ";
    std::string dump;
    manager->dumpState(dump);
    EXPECT_EQ(head + "default.action.reset.policy\n   Current Action Set  : \n", dump);

    // App switch or state change, from, its state, to, its state, what gets written.
    using S = const char*;
    const std::tuple<bool, S, S, S, S, S> rows[] = {
        {true, "A", "run", "B", "launch",
         "A.run.on_exit|default|B.launch.on_enter|B.launch.policy|"},
        // Leaving "reset" skips the default reset.
        {true, "A", "reset", "B", "run", "A.reset.on_exit|B.run.on_enter|B.run.policy|"},
        // Unknown applications and states run nothing, but the default reset still runs.
        {true, "X", "run", "Y", "scale", "default|"},
        // A state change from or to "reset" is not special.
        {false, "B", "run", "B", "reset", "B.run.on_exit|B.reset.on_enter|B.reset.policy|"},
        {false, "B", "reset", "B", "launch", "B.reset.on_exit|B.launch.on_enter|B.launch.policy|"},
        {false, "A", "launch", "A", "run", "A.launch.on_exit|A.run.on_enter|A.run.policy|"},
        {false, "Z", "run", "Z", "launch", ""},
    };
    auto db = parseDB(orderDocument(fifo));  // the database's own one-call sequences
    for (const auto& [appSwitch, from, fromState, to, toState, expected] : rows) {
        OrvActionManager::OrvAction* action =
            appSwitch ? static_cast<OrvActionManager::OrvAction*>(
                            new AppSwitch(from, 1, 2, fromState, to, 3, 4, toState))
                      : new StateChange(fromState, toState, from, 1, 2);
        appSwitch ? db->executeAppChangeAction(action) : db->executeStateChangeAction(action);
        EXPECT_EQ(expected, drainFifo()) << "one call";
        action->send(manager);
        sync(manager);
        EXPECT_EQ(expected, drainFifo());
    }
    // Missing sets leave Last Done alone; the keyed sets keep their line feed.
    manager->dumpState(dump);
    EXPECT_EQ(head + "A.action.run.policy\n\n   Current Action Set  : \n", dump);
}

TEST_F(ExecutionTest, ReferencesAndNestedGroups) {
    std::string fifo = makeFifo();
    // "inner" holds a "prop" method whose value is of the wrong kind.
    OrvActionManager* manager = start(marks(R"({"parser":"v1.0","version":"v1","policy_group":{
        "boost":[<boost|>,{"method":"group","path":"inner"},{"method":"group","path":"none"},<end|>],
        "inner":[<i|>,{"method":"prop","path":"p","type":"int","value":"5"}]},
      "applications":{
        "A":{"param":{"large_heap":"true","event_mask":"0110"},
             "action":{"launch":{"on_enter":[{"method":"group","path":"boost"}]},
                       "run":{"on_enter":[<A.run|>]}}},
        "B":{"param":{"event_mask":"1","reference":"A"},
             "action":{"reference":"A","run":{"on_enter":[<B.run|>]}}},
        "C":{"param":{"reference":"B"},"action":{"reference":"B"}},
        "D":{"param":{"reference":"nowhere"},"action":{"reference":"nowhere"}},
        "Be":{"param":{"vent_mask":"be"}}}})",
                                            fifo));
    // App, parameter, its value. Asked before the sets run and after, when the action lookups
    // have added "nowhere" and "Z" to the document.
    const std::vector<ParamRow> params = {
        {"B", "event_mask", "1"},      // own value wins
        {"Be", "vent_mask", "be"},     // the same letters as B's, cut elsewhere
        {"B", "large_heap", "true"},   // from A
        {"C", "large_heap", "true"},   // from B, from A
        {"B", "reference", "A"},       // only when asked by that name
        {"D", "large_heap", nullptr},  // the referenced app does not exist
        {"Z", "large_heap", nullptr},
    };
    expectParams(manager, params, "before");
    EXPECT_FALSE(manager->findApp("nowhere"));
    EXPECT_FALSE(manager->findApp("Z"));
    // App, state entered, what gets written, the debug line naming the set and its source.
    const std::tuple<const char*, const char*, std::string, std::string> rows[] = {
        {"B", "launch", "boost|i|end|", "fetch B.action.launch.on_enter(reference A)"},
        {"B", "run", "B.run|", "fetch B.action.run.on_enter"},
        {"C", "launch", "boost|i|end|", "fetch C.action.launch.on_enter(reference A)"},
        {"C", "run", "B.run|", "fetch C.action.run.on_enter(reference B)"},
        {"D", "run", "", "nop (no define or reference: D.action.run.on_enter)"},
        {"Z", "run", "", "nop (no define or reference: Z.action.run.on_enter)"},
    };
    for (int round = 0; round < 2; ++round) {  // the second round from the settled answers
        for (const auto& [app, state, written, fetchLine] : rows) {
            mLog.clear();
            (new StateChange("start", state, app, 1, 2))->send(manager);
            sync(manager);
            EXPECT_EQ(written, drainFifo()) << app << " " << state;
            EXPECT_TRUE(mLog.has(fetchLine)) << fetchLine;
            // Each nesting level names its index and method or group.
            std::string at = fetchLine.substr(6), boost = written == "boost|i|end|" ? at : "";
            EXPECT_EQ(boost.empty() ? "" : "Unknown type(int). @" + at + "[0]boost[1]inner[1]prop",
                      errors());
            EXPECT_EQ(!boost.empty(),
                      mLog.has("Cannot find policy_group.none. (fetch " + at + "[0]boost[2]group)"));
        }
    }
    expectParams(manager, params, "after");
    // The lookups that ran the sets grew the document: these count as known from then on.
    EXPECT_TRUE(manager->findApp("nowhere"));
    EXPECT_TRUE(manager->findApp("Z"));
}

// Literal values are read once per database; variables, files and properties on every run.
TEST_F(ExecutionTest, OnlyLiteralValuesAreKeptBetweenRuns) {
    const std::string fifo = makeFifo(), src = mRoot / "src";
    auto value = [](const char* method, const std::string& type, const std::string& v) {
        return R"(,{"method":")" + std::string(method) + R"(","path":"#","type":")" + type +
               R"(","value":)" + v + "}";
    };
    OrvActionManager* manager = start(marks(
        R"({"parser":"v1.0","version":"v1","applications":{"B":{"action":{"reference":"A"}},
        "A":{"action":{"run":{"on_enter":[<L|>)" +
            value("xfs", "var", R"("PID")") + ",<|>" + value("xfs", "var", R"("GLTID")") + ",<|>" +
            value("xfs", "xfs", '"' + src + '"') + ",<|>" + value("xfs", "prop", R"("test.src")") +
            ",<|>" + value("xfs", "int", "7") +
            R"(,{"method":"prop","path":"test.lit","type":"string","value":"on"},
              {"method":"prop","path":"test.pid","type":"var","value":"PID"}]}}}}})",
        fifo, fifo));
    struct Row {
        const char* app;
        int pid, glTid;  // -1: unknown, so the variable writes nothing
        const char* file;
        const char* prop;
        const char* written;
        const char* at;  // the location the literal's trace line names
    };
    const Row rows[] = {
        {"A", 11, 12, "s1", "p1", "L|11|12|s1|p1|7", "A.action.run.on_enter"},
        {"B", 21, -1, "s2", "p2", "L|21||s2|p2|7", "B.action.run.on_enter(reference A)"},
        {"A", 31, 32, "s3", "p3", "L|31|32|s3|p3|7", "A.action.run.on_enter"},
    };
    char prop[PROPERTY_VALUE_MAX];
    for (const Row& r : rows) {
        mRoot.write("src", r.file);
        property_set("test.src", r.prop);
        property_set("test.lit", "off");  // set again on every run
        mLog.clear();
        (new StateChange("start", "run", r.app, r.pid, r.glTid))->send(manager);
        sync(manager);
        EXPECT_EQ(r.written, drainFifo()) << r.pid;
        EXPECT_TRUE(mLog.has("exe   " + std::string(r.at) + "[0]xfs:{path:" + fifo + " value:L|}"));
        property_get("test.lit", prop, "");
        EXPECT_STREQ("on", prop) << r.pid;
        property_get("test.pid", prop, "");
        EXPECT_EQ(std::to_string(r.pid), prop);
    }
    EXPECT_EQ("", errors());
}

// Queries and dumps from another thread while actions run and grow the document.
TEST_F(ExecutionTest, QueriesRaceWithExecution) {
    OrvActionManager* manager = start(orderDocument(makeFifo()));
    std::atomic<bool> stop{false};
    std::thread listener([&] {
        for (std::string out; !stop.load();) {
            manager->findApp("new.app");
            manager->findAppParam("B", "large_heap", out);
            manager->dumpState(out);
        }
    });
    for (int i = 0; i < 50; ++i)
        (new AppSwitch("A", 1, 2, "run", ("app" + std::to_string(i)).c_str(), 3, 4, "launch"))
            ->send(manager);
    sync(manager);
    stop = true;
    listener.join();
    EXPECT_TRUE(manager->findApp("app49"));
    EXPECT_EQ("", errors());
}

}  // namespace
