// orvctl against the real orvd running the example policy in a temporary root.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tools/ToolRun.h"

using namespace orvtest;

namespace {

const char* const kGovernor = "sys/devices/system/cpu/cpu0/cpufreq/scaling_governor";
const char* const kMinFreq = "sys/devices/system/cpu/cpu0/cpufreq/scaling_min_freq";
const char* const kProcs = "dev/cpuctl/top-app/cgroup.procs";

// Stops the daemon however the test ends.
struct Child {
    pid_t pid;
    ~Child() {
        if (pid <= 0) return;
        kill(pid, SIGINT);
        waitpid(pid, nullptr, 0);
    }
};

}  // namespace

// One daemon for the whole story: queries, a few events by hand, then the example session.
TEST(OrvdRunning, QueriesEventsAndTheExampleTrace) {
    TempRoot root;
    for (const char* node : {kGovernor, kMinFreq, kProcs}) root.write(node, "");
    auto node = [&](const char* rel) { return readFile(root / rel); };
    std::string sed = "sed -e 's#\"/sys/#\"" + root.path() + "/sys/#g' -e 's#\"/dev/cpuctl/#\"" +
                      root.path() + "/dev/cpuctl/#g' " +
                      shellQuote(source("examples/tablet-policy.json")) + " > " +
                      shellQuote(root / "data/orvpolicy");
    ASSERT_EQ(system(sed.c_str()), 0);
    Child orvd{fork()};
    ASSERT_GE(orvd.pid, 0);
    if (orvd.pid == 0) {
        if (freopen((root / "orvd.log").c_str(), "w", stderr) != nullptr)
            execl(bin("orvd").c_str(), "orvd", static_cast<char*>(nullptr));
        _exit(127);
    }
    ASSERT_TRUE(eventually([&] { return runTool(root, "orvctl", "dump").status == 0; }))
        << readFile(root / "orvd.log");

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
    // The session ends with the screen off and on again: back in reset, baseline applied.
    dump = runTool(root, "orvctl", "dump");
    EXPECT_NE(dump.out.find("   State     : reset\n"), std::string::npos) << dump.out;
    EXPECT_TRUE(eventually(
        [&] { return readFile(root / "dev/__properties__/vendor.orv.profile") == "balanced"; }));
}
