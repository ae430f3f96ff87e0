// "orvpolicy simulate": the same writes as the real daemon on the example session, time-outs
// driven by the trace's pauses, and nothing performed on the machine.
#include <gtest/gtest.h>
#include <json/json.h>

#include <sstream>
#include <utility>

#include "tools/ExampleDaemon.h"

using namespace orvtest;

namespace {

// (node path or property name, value) of each write, in order.
using Writes = std::vector<std::pair<std::string, std::string>>;

// From orvd's debug lines "exe   LOCATION:{path:P value:V}", where LOCATION ends in the method.
Writes daemonWrites(const std::string& log) {
    Writes out;
    std::istringstream in(log);
    std::string line;
    while (std::getline(in, line)) {
        size_t exe = line.find("OrvActionManager: exe ");
        size_t path = line.find(":{path:");
        size_t value = line.rfind(" value:");
        if (exe == std::string::npos || path == std::string::npos || value == std::string::npos)
            continue;
        std::string location = line.substr(exe, path - exe);
        std::string method = location.substr(location.rfind(']') + 1);
        if (method != "xfs" && method != "prop") continue;
        out.emplace_back(line.substr(path + 7, value - path - 7),
                         line.substr(value + 7, line.size() - value - 8));
    }
    return out;
}

std::vector<Json::Value> jsonLines(const std::string& text) {
    std::vector<Json::Value> out;
    std::istringstream in(text);
    std::string line;
    Json::CharReaderBuilder b;
    while (std::getline(in, line)) {
        Json::Value v;
        std::string errors;
        std::istringstream one(line);
        if (Json::parseFromStream(b, one, &v, &errors)) out.push_back(v);
    }
    return out;
}

Writes simulatedWrites(const std::vector<Json::Value>& steps) {
    Writes out;
    for (const auto& s : steps)
        for (const auto& e : s["effects"])
            if (e["kind"] == "write" || e["kind"] == "prop")
                out.emplace_back(e["target"].asString(), e["value"].asString());
    return out;
}

}  // namespace

TEST(Simulate, WritesWhatTheDaemonWritesOnTheExampleSession) {
    TempRoot root;
    ExampleDaemon orvd(root, true);
    ASSERT_TRUE(orvd.ready()) << orvd.log();
    const std::string trace = shellQuote(source("examples/session.trace"));

    ToolResult sim = runTool(
        root, "orvpolicy", "simulate --json " + shellQuote(root / "data/orvpolicy") + " " + trace);
    ASSERT_EQ(sim.status, 0) << sim.err;
    const std::vector<Json::Value> steps = jsonLines(sim.out);
    Writes expected = simulatedWrites(steps);
    ASSERT_GT(expected.size(), 40u) << sim.out;
    ASSERT_EQ(steps[steps.size() - 2]["event"], "stop") << sim.out;
    const size_t beforeStop = expected.size() - simulatedWrites({steps[steps.size() - 2]}).size();

    ToolResult replay = runTool(root, "orvctl", "replay " + trace);
    ASSERT_EQ(replay.status, 0) << replay.err;
    for (const char* line : {"event-mask com.android.chrome => 7\n", "large-heap 3410 => true\n",
                             "event-mask --pid 3410 => 11\n"})
        EXPECT_NE(replay.out.find(line), std::string::npos) << replay.out;
    // The simulation ends with orvd's stop, whose "on_stop" runs after everything else. The
    // last actions may still run after the replay returns, and the stop waits for them only so
    // long.
    eventually([&] { return daemonWrites(orvd.log()).size() >= beforeStop; });
    kill(orvd.pid(), SIGINT);
    eventually([&] { return daemonWrites(orvd.log()).size() >= expected.size(); });
    EXPECT_EQ(daemonWrites(orvd.log()), expected);
}

TEST(Simulate, TimeOutsFollowThePausesOfTheTrace) {
    TempRoot root;
    root.write("policy.json", R"({"parser":"v1.0","version":"v1",
        "applications":{"com.a":{"action":{"run":{"policy":[]}}}}})");
    const struct {
        const char* name;
        const char* trace;
        std::vector<long long> firedAt;  // simulated ms of each time-out
    } cases[] = {
        {"a pause shorter than the time-out", "gesture tap 1\nsleep 99\n", {}},
        {"the default 100 ms", "gesture tap 1\nsleep 50\nsleep 60\n", {100}},
        {"a repeated tap re-arms",
         "gesture tap 1\nsleep 50\ngesture tap 1\nsleep 60\nsleep 40\n",
         {150}},
        {"one pause covers two gestures",
         "gesture tap 1\nsleep 100\ngesture fling 1\nsleep 1000\n",
         {100, 200}},
        {"leaving the gesture cancels it", "gesture tap 1\nlist scroll 1\nsleep 500\n", {}},
    };
    for (const auto& c : cases) {
        root.write("t.trace",
                   std::string("proc-start 1 com.a\nstart 1 com.a\ndisplayed 1 com.a\n") + c.trace);
        ToolResult r = runTool(root, "orvpolicy",
                               "simulate --json " + shellQuote(root / "policy.json") + " " +
                                   shellQuote(root / "t.trace"));
        ASSERT_EQ(r.status, 0) << c.name << ": " << r.err;
        std::vector<long long> fired;
        for (const auto& s : jsonLines(r.out)) {
            if (s["event"] != "timeout") continue;
            fired.push_back(s["at_ms"].asInt64());
            EXPECT_EQ(s["to"]["state"], "run") << c.name;
        }
        EXPECT_EQ(fired, c.firedAt) << c.name;
    }
}

TEST(Simulate, RecordsWithoutTouchingTheMachine) {
    TempRoot root;
    const std::string node = root.write("node", "old\n");
    const std::string marker = root / "program-ran";
    const std::string doc = R"({"parser":"v1.0","version":"v1","applications":{"com.a":{"action":{
        "run":{"policy":[
          {"method":"xfs","path":")" +
                            node + R"(","type":"string","value":"new"},
          {"method":"xfs","path":")" +
                            root.path() + R"(/missing","type":"string","value":"1"},
          {"method":"prop","path":"vendor.sim","type":"var","value":"PID"},
          {"method":"orv_ioctl","path":"/dev/orv_nowhere","cmd":3,"value":"on"},
          {"method":"program","path":"/usr/bin/touch","type":"string","value":")" +
                            marker + R"("}]}}}}})";
    root.write("plain.json", doc);
    ASSERT_EQ(
        runTool(root, "orvpolicy",
                "protect " + shellQuote(root / "plain.json") + " " + shellQuote(root / "protected"))
            .status,
        0);
    root.write("t.trace", "start 42 com.a\ndisplayed 42 com.a\n");
    ToolResult r = runTool(root, "orvpolicy",
                           "simulate --strict-paths " + shellQuote(root / "protected") + " " +
                               shellQuote(root / "t.trace"));
    ASSERT_EQ(r.status, 0) << r.err;
    for (const std::string& line : std::vector<std::string>{
             "  runs com.a.action.run.policy\n",
             "    " + node + ": old -> new\n",
             "    error: cannot open \"" + root.path() +
                 "/missing\" (errno=2) @com.a.action.run.policy[1]xfs\n",
             "    prop vendor.sim: (unset) -> 42\n",
             "    ioctl /dev/orv_nowhere 0x40047803 {path:/dev/orv_nowhere cmd:3 value:on} "
             "(recorded, not performed)\n",
             "    program /usr/bin/touch " + marker + " (recorded, not run)\n",
         })
        EXPECT_NE(r.out.find(line), std::string::npos) << line << "in\n" << r.out;
    EXPECT_EQ(readFile(node), "old\n");
    EXPECT_EQ(access(marker.c_str(), F_OK), -1);
    EXPECT_EQ(access((root / "dev/__properties__/vendor.sim").c_str(), F_OK), -1);
}

// A state left on a framework event ends by itself after its "<state>_timeout", running what its
// own end would run; without the parameter it stays.
TEST(Simulate, EventEndedStatesEndByTheirTimeOut) {
    TempRoot root;
    const std::string kProp = R"({"method":"prop","path":"vendor.t","type":"string","value":"x"})";
    const struct {
        const char* param;  // empty: none
        const char* state;
        const char* enter;  // the trace lines from run (or from nothing, for launch and start)
        const char* end;    // the state's own end, for the row that ends before the time-out
    } cases[] = {
        {"launch_timeout", "launch", "launch com.a\n", "displayed 1 com.a\n"},
        {"start_timeout", "start", "start 1 com.a\n", "displayed 1 com.a\n"},
        {"scale_timeout", "scale", "scale start 1\n", "scale end 1\n"},
        {"listview_scroll_timeout", "listview_scroll", "list scroll 1\n", "list idle 1\n"},
        {"listview_fling_timeout", "listview_fling", "list fling 1\n", "list idle 1\n"},
        {"rotate_timeout", "rotate", "rotate start\n", "rotate anim-end\n"},
        {"", "launch", "launch com.a\n", "displayed 1 com.a\n"},
        {"", "listview_fling", "list fling 1\n", "list idle 1\n"},
    };
    for (const auto& c : cases) {
        const std::string param = *c.param ? std::string("\"") + c.param + "\":\"300\"" : "";
        const std::string state = c.state;
        root.write("policy.json",
                   R"({"parser":"v1.0","version":"v1","applications":{"com.a":{"param":{)" + param +
                       R"(},"action":{")" + state + R"(":{"on_exit":[)" + kProp +
                       R"(]},"run":{"policy":[)" + kProp + "]}}}}}");
        const bool fromRun = state != "launch" && state != "start";
        const std::string to = fromRun ? "proc-start 1 com.a\nstart 1 com.a\ndisplayed 1 com.a\n"
                                       : "proc-start 1 com.a\n";
        for (bool endFirst : {false, true}) {
            const std::string what = std::string(*c.param ? c.param : "no parameter") + " " +
                                     (endFirst ? "ended by its event" : "left alone");
            root.write("t.trace", to + c.enter + "sleep 299\n" + (endFirst ? c.end : "") +
                                      "sleep 1\nsleep 5000\n");
            ToolResult r = runTool(root, "orvpolicy",
                                   "simulate --json " + shellQuote(root / "policy.json") + " " +
                                       shellQuote(root / "t.trace"));
            ASSERT_EQ(r.status, 0) << what << ": " << r.err;
            std::vector<Json::Value> timeouts;
            std::string last;
            for (const auto& s : jsonLines(r.out)) {
                if (s["event"] == "timeout") timeouts.push_back(s);
                if (s.isMember("to")) last = s["to"]["state"].asString();
            }
            if (*c.param && !endFirst) {
                ASSERT_EQ(timeouts.size(), 1u) << what << "\n" << r.out;
                EXPECT_EQ(timeouts[0]["at_ms"].asInt64(), 300) << what;
                EXPECT_EQ(timeouts[0]["from"]["state"], state) << what;
                EXPECT_EQ(timeouts[0]["to"]["state"], "run") << what;
                std::string sets;
                for (const auto& set : timeouts[0]["sets"]) sets += set.asString() + " ";
                EXPECT_EQ(sets, "com.a.action." + state + ".on_exit com.a.action.run.policy ")
                    << what;
            } else {
                EXPECT_TRUE(timeouts.empty()) << what << "\n" << r.out;
                EXPECT_EQ(last, endFirst ? "run" : state) << what;
            }
        }
    }
}

// A "*" entry that defines nothing changes nothing: every example and seed policy gives the same
// simulation with it as without any (an example's own "*" is taken out for the comparison).
TEST(Simulate, AnEmptyFallbackLeavesEveryTraceAsItWas) {
    TempRoot root;
    const std::string trace = readFile(source("examples/session.trace")) +
                              "proc-start 77 com.not.listed\nlaunch com.not.listed\n"
                              "start 77 com.not.listed\ndisplayed 77 com.not.listed\n"
                              "list scroll 77\ngesture tap 77\nsleep 500\n"
                              "transit 77 com.not.listed 2301 com.android.chrome\n"
                              "transit 2301 com.android.chrome 77 com.not.listed\nsleep 5000\n";
    root.write("t.trace", trace);
    const std::string policies[] = {"examples/tablet-policy.json",
                                    "examples/linux-cgroup-policy.json", "fuzz/seeds-policy/groups",
                                    "fuzz/seeds-policy/tablet"};
    Json::StreamWriterBuilder writer;
    for (const auto& rel : policies) {
        Json::Value doc;
        ASSERT_TRUE(Json::Reader().parse(readFile(source(rel)), doc)) << rel;
        if (doc["applications"].isObject()) doc["applications"].removeMember("*");
        std::string outputs[3];
        const Json::Value fallbacks[] = {Json::Value(), Json::Value(Json::objectValue),
                                         Json::Value(Json::objectValue)};
        for (int i = 0; i < 3; ++i) {
            Json::Value variant = doc;
            if (i > 0) variant["applications"]["*"] = fallbacks[i];
            if (i == 2) {
                variant["applications"]["*"]["action"] = Json::Value(Json::objectValue);
                variant["applications"]["*"]["param"] = Json::Value(Json::objectValue);
            }
            root.write("p.json", Json::writeString(writer, variant));
            ToolResult r = runTool(root, "orvpolicy",
                                   "simulate --json " + shellQuote(root / "p.json") + " " +
                                       shellQuote(root / "t.trace"));
            ASSERT_EQ(r.status, 0) << rel << " " << i << ": " << r.err;
            outputs[i] = r.out;
        }
        EXPECT_GT(jsonLines(outputs[0]).size(), 30u) << rel;  // every step ran
        EXPECT_EQ(outputs[1], outputs[0]) << rel << ": \"*\": {}";
        EXPECT_EQ(outputs[2], outputs[0]) << rel << ": \"*\" with empty action and param";
    }
}
