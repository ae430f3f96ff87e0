// "orvctl verify" and "orvctl monitor" against a running orvd on the example policy.
#include <gtest/gtest.h>

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

TEST(OrvCtlMonitor, ShowsEventsMovesEffectsAndFailures) {
    TempRoot root;
    ExampleDaemon orvd(root, false);
    ASSERT_TRUE(orvd.ready()) << orvd.log();
    unlink((root / "dev/cpuctl/top-app/cgroup.procs").c_str());  // a node that went away
    const std::string ctl = shellQuote(bin("orvctl"));
    const std::string script = ctl + " --log " + shellQuote(root / "orvd.log") +
                               " monitor --for 1500 >" + shellQuote(root / "monitor") +
                               " & sleep 0.3; " + ctl + " proc-start 7 com.android.chrome; " + ctl +
                               " start 7 com.android.chrome; " + ctl +
                               " displayed 7 com.android.chrome; " + ctl + " gesture tap 7; wait";
    ASSERT_EQ(system(script.c_str()), 0);
    const std::string out = readFile(root / "monitor");
    for (const std::string& part : std::vector<std::string>{
             " event   onStart(name=com.android.chrome, pid=7, glTid=-1)\n",
             " switch  reset -> start com.android.chrome\n",
             " state   start com.android.chrome -> run com.android.chrome\n",
             "   run   com.android.chrome.action.run.policy[0]browse_profile[4]prop:{path:"
             "sys.orv.tune.profile value:browse}\n",
             " FAILED  cannot open \"" + root / "dev/cpuctl/top-app/cgroup.procs",
             " event   onTimeout()\n",
             " state   gesture_tap com.android.chrome -> run com.android.chrome\n",
         })
        EXPECT_NE(out.find(part), std::string::npos) << part << " in\n" << out;
    EXPECT_EQ(runTool(root, "orvctl", "getprop sys.orv.debug.daemon").out, "0\n")
        << "the debug switch is back off";
}
