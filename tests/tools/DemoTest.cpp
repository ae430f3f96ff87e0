// "make demo" end to end: exit status, a few of its lines, and nothing left behind.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tools/ToolRun.h"

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
        "[2] launch com.android.chrome",
        "state: launch (com.android.chrome, pid -1)",
        "scaling_governor    schedutil -> performance",
        "[14] event-mask com.android.chrome   => 7",
        "state: gesture_long_press (com.example.racinggame, pid 3410)",
        "== Final dump",
        "orvd exited with status 2 (SIGINT); demo done",
    };
    for (const char* line : lines) EXPECT_NE(text.find(line), std::string::npos) << line;

    size_t at = text.find("ORV_ROOT=");
    ASSERT_NE(at, std::string::npos);
    std::string root = text.substr(at + 9, text.find(')', at) - at - 9);
    struct stat st;
    EXPECT_NE(stat(root.c_str(), &st), 0) << root << " was left behind";
}
