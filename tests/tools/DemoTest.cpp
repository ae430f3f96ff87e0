// "make demo" end to end: exit status, a few of its lines, and nothing left behind.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/ToolRun.h"

using namespace orvtest;

TEST(Demo, ReplaysTheSessionAndCleansUp) {
    TempRoot scratch;
    std::string buildDir = std::string(ORV_BIN_DIR) + "/..";
    std::string out = scratch / "demo.out";
    std::string cmd = shellQuote(source("scripts/demo")) + " " + shellQuote(buildDir) + " >" +
                      shellQuote(out) + " 2>&1";
    int s = system(cmd.c_str());
    std::string text = readFile(out);
    ASSERT_TRUE(WIFEXITED(s) && WEXITSTATUS(s) == 0) << text;

    const char* lines[] = {
        "0 errors, 1 warning",
        "[2] launch com.android.chrome    reset -> launch com.android.chrome",
        "scaling_governor: schedutil -> performance",
        // The tap boost comes, and goes with its time-out.
        "[9] gesture tap 2301    run com.android.chrome -> gesture_tap com.android.chrome\n"
        "     runs com.android.chrome.action.gesture_tap.on_enter\n"
        "       /sys/devices/system/cpu/cpu0/cpufreq/scaling_min_freq: 1200000 -> 1800000\n",
        "[10] at 150 ms the time-out fires    gesture_tap com.android.chrome -> run",
        "replay: event-mask com.android.chrome => 7",
        " state   run com.example.racinggame -> gesture_long_press com.example.racinggame",
        // An unlisted app's launch boost from "*", ended by its time-out.
        "[29] launch com.unknown.app    run com.android.chrome -> launch com.unknown.app",
        "[30] at 3100 ms the time-out fires    launch com.unknown.app -> run com.unknown.app\n"
        "     runs com.unknown.app.action.run.policy(reference *)\n",
        "orvd stops (SIGINT or SIGTERM)",
        "== Final dump",
        "== Why is a node at its value?",
        "the policy's on_stop puts back:\n"
        "   /sys/devices/system/cpu/cpu0/cpufreq/scaling_governor = schedutil\n"
        "   /sys/devices/system/cpu/cpu0/cpufreq/scaling_min_freq = 800000\n",
        "orvd stopped normally (SIGINT, exit status 2); demo done",
    };
    for (const char* line : lines) EXPECT_NE(text.find(line), std::string::npos) << line;

    size_t at = text.find("ORV_ROOT=");
    ASSERT_NE(at, std::string::npos);
    std::string root = text.substr(at + 9, text.find(')', at) - at - 9);
    struct stat st;
    EXPECT_NE(stat(root.c_str(), &st), 0) << root << " was left behind";
}
