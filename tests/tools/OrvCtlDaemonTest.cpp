// orvctl against the real orvd running the example policy in a temporary root.
#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>

#include "tools/ExampleDaemon.h"

using namespace orvtest;

namespace {

const char* const kGovernor = "sys/devices/system/cpu/cpu0/cpufreq/scaling_governor";
const char* const kMinFreq = "sys/devices/system/cpu/cpu0/cpufreq/scaling_min_freq";
const char* const kProcs = "dev/cpuctl/top-app/cgroup.procs";

}  // namespace

// One daemon for queries and a few events by hand; "orvpolicy simulate"'s test replays the
// example session.
TEST(OrvdRunning, QueriesAndEventsByHand) {
    TempRoot root;
    auto node = [&](const char* rel) { return readFile(root / rel); };
    ExampleDaemon orvd(root, false);
    ASSERT_TRUE(orvd.ready()) << orvd.log();

    const struct {
        const char* args;
        const char* out;
    } queries[] = {
        {"event-mask com.android.chrome", "7\n"},
        {"event-mask org.mozilla.firefox", "7\n"},  // through "reference"
        {"event-mask com.unknown", "0\n"},
        {"thermal-mask com.example.racinggame", "6\n"},
        {"large-heap 99", "false\n"},  // pid never announced
        {"send 7", "7 -1\n"},
        {"send 400 '9;x'", ""},  // no reply to wait for
    };
    for (const auto& q : queries) {
        ToolResult r = runTool(root, "orvctl", q.args);
        EXPECT_EQ(r.status, 0) << q.args << ": " << r.err;
        EXPECT_EQ(r.out, q.out) << q.args;
    }

    EXPECT_TRUE(eventually([&] { return node(kMinFreq) == "800000"; })) << "start-up ran the reset";
    for (const char* event : {"proc-start 2301 com.android.chrome", "launch com.android.chrome"})
        EXPECT_EQ(runTool(root, "orvctl", event).status, 0) << event;
    EXPECT_TRUE(eventually([&] { return node(kGovernor) == "performance"; })) << node(kGovernor);
    for (const char* event : {"start 2301 com.android.chrome", "displayed 2301 com.android.chrome"})
        EXPECT_EQ(runTool(root, "orvctl", event).status, 0) << event;
    EXPECT_TRUE(eventually([&] { return node(kProcs) == "2301"; })) << node(kProcs);
    ToolResult dump = runTool(root, "orvctl", "dump");
    EXPECT_NE(dump.out.find("   App       : com.android.chrome\n   State     : run\n"),
              std::string::npos)
        << dump.out;
}

// "why" during an unlisted app's launch: the method that wrote each target, placed in the
// policy text, and what each way out of the state writes next.
TEST(OrvdRunning, WhyNamesTheWriterAndWhatComesNext) {
    TempRoot root;
    ExampleDaemon orvd(root, false);
    ASSERT_TRUE(orvd.ready()) << orvd.log();
    // The launch ends by itself after 2 s: a slow machine may see it end before the answer.
    auto whyInLaunch = [&](const std::string& target, Json::Value& v) {
        for (int attempt = 0; attempt < 10; ++attempt) {
            for (const char* event : {"sleep", "wake", "launch com.unknown.app"})
                runTool(root, "orvctl", event);
            eventually([&] { return readFile(root / kGovernor) == "performance"; });
            ToolResult w = runTool(root, "orvctl", "why --json " + shellQuote(target));
            if (w.status != 0 || !Json::Reader().parse(w.out, v)) return false;
            if (v["state"] == "launch") return true;
        }
        return false;
    };
    const std::string policy = readFile(root / "data/orvpolicy");
    // Line and column of the first method object after `after` that names `target`.
    auto placeOf = [&](const std::string& after, const std::string& target) {
        size_t at = policy.find(target, policy.find(after));
        at = policy.rfind('{', at);
        size_t lineStart = policy.rfind('\n', at) + 1;
        int line = 1 + std::count(policy.begin(), policy.begin() + at, '\n');
        return std::make_pair(line, static_cast<int>(at - lineStart) + 1);
    };
    const struct {
        std::string target;
        const char* value;
        const char* writer;     // the method, empty: none
        std::string group;      // where it is written
        const char* onTimeout;  // what the launch time-out writes, empty: nothing
    } rows[] = {
        {root / kMinFreq, "2400000",
         "com.unknown.app.action.launch.on_enter(reference *)[0]"
         "launch_boost[1]xfs",
         "\"launch_boost\"", "800000"},
        {"sys.orv.tune.profile", "launch",
         "com.unknown.app.action.launch.on_enter(reference *)[0]"
         "launch_boost[3]prop",
         "\"launch_boost\"", "balanced"},
        // Left by the start-up reset; no state of the fallback touches it.
        {root / kProcs, "", "", "", ""},
    };
    for (const auto& r : rows) {
        Json::Value v;
        ASSERT_TRUE(whyInLaunch(r.target, v)) << r.target;
        const std::string out = v.toStyledString();
        EXPECT_EQ(v["value"], r.value) << out;
        EXPECT_NE(v["notes"][0].asString().find("inferred"), std::string::npos) << out;
        if (*r.writer) {
            EXPECT_EQ(v["written_by"]["method"], r.writer) << out;
            const auto place = placeOf(r.group, r.target.substr(r.target.rfind('/') + 1));
            EXPECT_EQ(v["written_by"]["line"].asInt(), place.first) << out;
            EXPECT_EQ(v["written_by"]["column"].asInt(), place.second) << out;
        } else {
            EXPECT_TRUE(v["written_by"].isNull()) << out;
        }
        const Json::Value& timeout = v["next"][0];
        EXPECT_NE(timeout["when"].asString().find("time-out, 2000 ms"), std::string::npos) << out;
        EXPECT_EQ(timeout["changes"].asBool(), *r.onTimeout != '\0') << out;
        EXPECT_EQ(timeout["value"].asString(), r.onTimeout) << out;
    }
}
