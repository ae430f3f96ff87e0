// orvctl against the real orvd running the example policy in a temporary root.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tools/ToolRun.h"

using namespace orvtest;

namespace {

const char* kNodes[] = {
    "sys/devices/system/cpu/cpu0/cpufreq/scaling_governor",
    "sys/devices/system/cpu/cpu0/cpufreq/scaling_min_freq",
    "sys/class/drm/card0/gt_min_freq_mhz",
    "dev/cpuctl/top-app/cpu.uclamp.min",
    "dev/cpuctl/top-app/cgroup.procs",
};

class OrvdRunning : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char* node : kNodes) mRoot.write(node, "");
        std::string cmd = "sed -e 's#\"/sys/#\"" + mRoot.path() +
                          "/sys/#g' -e 's#\"/dev/cpuctl/#\"" + mRoot.path() + "/dev/cpuctl/#g' " +
                          shellQuote(source("examples/tablet-policy.json")) + " > " +
                          shellQuote(mRoot / "data/orvpolicy");
        ASSERT_EQ(system(cmd.c_str()), 0);
        mPid = fork();
        if (mPid == 0) {
            FILE* log = freopen((mRoot / "orvd.log").c_str(), "w", stderr);
            (void)log;
            execl(bin("orvd").c_str(), "orvd", static_cast<char*>(nullptr));
            _exit(127);
        }
        ASSERT_TRUE(eventually([&] { return runTool(mRoot, "orvctl", "dump").status == 0; }))
            << readFile(mRoot / "orvd.log");
    }
    void TearDown() override {
        if (mPid > 0) {
            kill(mPid, SIGINT);
            waitpid(mPid, nullptr, 0);
        }
    }
    std::string node(int i) { return readFile(mRoot / kNodes[i]); }

    TempRoot mRoot;
    pid_t mPid = -1;
};

}  // namespace

TEST_F(OrvdRunning, EventsDriveThePolicy) {
    // Start-up ran the default reset.
    EXPECT_TRUE(eventually([&] { return node(1) == "800000"; }));
    EXPECT_EQ(runTool(mRoot, "orvctl", "proc-start 2301 com.android.chrome").status, 0);
    EXPECT_EQ(runTool(mRoot, "orvctl", "launch com.android.chrome").status, 0);
    EXPECT_TRUE(eventually([&] { return node(0) == "performance"; })) << node(0);
    EXPECT_EQ(runTool(mRoot, "orvctl", "start 2301 com.android.chrome").status, 0);
    EXPECT_EQ(runTool(mRoot, "orvctl", "displayed 2301 com.android.chrome").status, 0);
    EXPECT_TRUE(eventually([&] { return node(4) == "2301"; })) << node(4);
    ToolResult dump = runTool(mRoot, "orvctl", "dump");
    EXPECT_NE(dump.out.find("   State     : run\n"), std::string::npos) << dump.out;
    EXPECT_NE(dump.out.find("   App       : com.android.chrome\n"), std::string::npos);
}

TEST_F(OrvdRunning, QueriesAnswerFromThePolicy) {
    const struct {
        const char* args;
        const char* out;
    } cases[] = {
        {"event-mask com.android.chrome", "7\n"},
        {"event-mask org.mozilla.firefox", "7\n"},  // through "reference"
        {"event-mask com.unknown", "0\n"},
        {"thermal-mask com.example.racinggame", "6\n"},
        {"large-heap 99", "false\n"},  // pid never announced
        {"send 7", "7 -1\n"},
    };
    for (const auto& c : cases) {
        ToolResult r = runTool(mRoot, "orvctl", c.args);
        EXPECT_EQ(r.status, 0) << c.args << ": " << r.err;
        EXPECT_EQ(r.out, c.out) << c.args;
    }
    ToolResult none = runTool(mRoot, "orvctl", "--timeout 200 send 400 '9;x'");
    EXPECT_EQ(none.status, 3);
}

TEST_F(OrvdRunning, ExampleTraceReplays) {
    ToolResult r =
        runTool(mRoot, "orvctl", "replay " + shellQuote(source("examples/session.trace")));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("event-mask com.android.chrome => 7\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("large-heap 3410 => true\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("event-mask --pid 3410 => 11\n"), std::string::npos) << r.out;
    // The session ends with the screen off and on again: back in reset, baseline applied.
    ToolResult dump = runTool(mRoot, "orvctl", "dump");
    EXPECT_NE(dump.out.find("   State     : reset\n"), std::string::npos) << dump.out;
    EXPECT_TRUE(eventually(
        [&] { return readFile(mRoot / "dev/__properties__/vendor.orv.profile") == "balanced"; }));
}
