// "orvctl verify" and "orvctl monitor" against a running orvd on the example policy.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "tools/ExampleDaemon.h"

using namespace orvtest;

namespace {

const char* const kGpu = "sys/class/drm/card0/gt_min_freq_mhz";

bool sendAll(const TempRoot& root, std::initializer_list<const char*> events) {
    for (const char* e : events)
        if (runTool(root, "orvctl", e).status != 0) return false;
    return true;
}

}  // namespace

TEST(OrvCtlVerify, FindsWhatChangedBehindOrvdsBack) {
    TempRoot root;
    ExampleDaemon orvd(root, false);
    ASSERT_TRUE(orvd.ready()) << orvd.log();
    ASSERT_TRUE(sendAll(root, {"proc-start 7 com.android.chrome", "start 7 com.android.chrome",
                               "displayed 7 com.android.chrome"}));
    // The actions run on orvd's own thread; verify agrees once they are all done.
    ToolResult r;
    EXPECT_TRUE(eventually([&] { return (r = runTool(root, "orvctl", "verify")).status == 0; }))
        << r.out << r.err;
    EXPECT_EQ(r.out, "8 values as the policy wants them for com.android.chrome in run\n");

    root.write(kGpu, "7");
    ASSERT_EQ(runTool(root, "orvctl", "setprop sys.orv.tune.profile game").status, 0);
    r = runTool(root, "orvctl", "verify");
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_EQ(r.out, root / kGpu +
                         ": the policy wants \"300\", the device has \"7\"\n"
                         "prop sys.orv.tune.profile: the policy wants \"browse\", the device has "
                         "\"game\"\n"
                         "2 of 8 values differ from the policy for com.android.chrome in run\n");
}

// Started before orvd and its log exist, as "make demo" starts it: --wait waits for both.
TEST(OrvCtlMonitor, ShowsEventsMovesEffectsAndFailures) {
    TempRoot root;
    EXPECT_EQ(runTool(root, "orvctl", "dump").status, 2) << "nothing listens yet";
    EXPECT_EQ(runTool(root, "orvctl", "--wait=x monitor").status, 1);
    const std::string out = root / "monitor";
    pid_t monitor = fork();
    if (monitor == 0) {
        if (freopen(out.c_str(), "w", stdout) != nullptr)
            execl(bin("orvctl").c_str(), "orvctl", "--wait", "--log", (root / "orvd.log").c_str(),
                  "monitor", static_cast<char*>(nullptr));
        _exit(127);
    }
    std::unique_ptr<pid_t, void (*)(pid_t*)> reap(&monitor, [](pid_t* p) {
        if (*p > 0) kill(*p, SIGKILL), waitpid(*p, nullptr, 0);
    });
    ExampleDaemon orvd(root, false);
    ASSERT_TRUE(orvd.ready()) << orvd.log();
    // Its first line comes once it reads the log and has turned orvd's debug lines on.
    ASSERT_TRUE(eventually([&] { return readFile(out).find("monitoring orvd") == 0; }));
    unlink((root / "dev/cpuctl/top-app/cgroup.procs").c_str());  // a node that went away
    ASSERT_TRUE(sendAll(root, {"proc-start 7 com.android.chrome", "start 7 com.android.chrome",
                               "displayed 7 com.android.chrome", "gesture tap 7"}));
    const std::vector<std::string> parts = {
        " event   onStart(name=com.android.chrome, pid=7, glTid=-1)\n",
        " switch  reset -> start com.android.chrome\n",
        " state   start com.android.chrome -> run com.android.chrome\n",
        "   run   com.android.chrome.action.run.policy[0]browse_profile[4]prop:{path:"
        "sys.orv.tune.profile value:browse}\n",
        " FAILED  cannot open \"" + root / "dev/cpuctl/top-app/cgroup.procs",
        " event   onTimeout()\n",
        " state   gesture_tap com.android.chrome -> run com.android.chrome\n",
    };
    auto shown = [&](const std::string& part) {
        return readFile(out).find(part) != std::string::npos;
    };
    eventually([&] { return std::all_of(parts.begin(), parts.end(), shown); });
    int status = -1;
    kill(monitor, SIGINT), waitpid(monitor, &status, 0), monitor = -1;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    for (const std::string& part : parts)
        EXPECT_TRUE(shown(part)) << part << " in\n" << readFile(out);
    EXPECT_EQ(runTool(root, "orvctl", "getprop sys.orv.debug.daemon").out, "0\n")
        << "the debug switch is back off";
}
