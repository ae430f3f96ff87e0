// orvctl against the real orvd running the example policy in a temporary root.
#include <gtest/gtest.h>

#include "tools/ExampleDaemon.h"

using namespace orvtest;

namespace {

const char* const kGovernor = "sys/devices/system/cpu/cpu0/cpufreq/scaling_governor";
const char* const kMinFreq = "sys/devices/system/cpu/cpu0/cpufreq/scaling_min_freq";
const char* const kProcs = "dev/cpuctl/top-app/cgroup.procs";

}  // namespace

// One daemon for the whole story: queries, a few events by hand, then the example session.
TEST(OrvdRunning, QueriesEventsAndTheExampleTrace) {
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

    ToolResult r = runTool(root, "orvctl", "replay " + shellQuote(source("examples/session.trace")));
    EXPECT_EQ(r.status, 0) << r.err;
    for (const char* line : {"event-mask com.android.chrome => 7\n", "large-heap 3410 => true\n",
                             "event-mask --pid 3410 => 11\n"})
        EXPECT_NE(r.out.find(line), std::string::npos) << r.out;
    // The session ends with the screen off and on again: back in reset, baseline applied. The
    // last events have no reply, so orvd may read them after the dump's connection.
    EXPECT_TRUE(eventually([&] {
        dump = runTool(root, "orvctl", "dump");
        return dump.out.find("   State     : reset\n") != std::string::npos;
    })) << dump.out;
    EXPECT_TRUE(eventually(
        [&] { return readFile(root / "dev/__properties__/vendor.orv.profile") == "balanced"; }));
}
