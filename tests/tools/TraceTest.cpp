// orvd's trace markers, recorded by the kernel and read back with trace-cmd.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <sstream>

#include "tools/ExampleDaemon.h"

using namespace orvtest;

namespace {

// Why markers cannot be recorded here; empty when they can.
std::string whyNoTracing() {
    if (geteuid() != 0) return "needs root to write trace_marker";
    if (system("command -v trace-cmd >/dev/null 2>&1") != 0) return "trace-cmd is not installed";
    struct stat st;
    if (stat("/sys/kernel/tracing/trace_marker", &st) != 0 &&
        mount("nodev", "/sys/kernel/tracing", "tracefs", 0, nullptr) != 0 &&
        stat("/sys/kernel/debug/tracing/trace_marker", &st) != 0)
        return "tracefs is not mounted and cannot be";
    std::string on = readFile("/sys/kernel/tracing/tracing_on");
    if (on.empty()) on = readFile("/sys/kernel/debug/tracing/tracing_on");
    if (on != "1\n") return "the kernel is not tracing (tracing_on is not 1)";
    return "";
}

// The marker texts orvd (process `pid`) left in the kernel's buffer, in order.
std::vector<std::string> markersOf(pid_t pid, const std::string& shown) {
    std::vector<std::string> out;
    std::istringstream in(shown);
    std::string line;
    const std::string key = "tracing_mark_write: ";
    const std::string mine = "|" + std::to_string(pid);
    while (std::getline(in, line)) {
        size_t at = line.find(key);
        if (at == std::string::npos) continue;
        std::string text = line.substr(at + key.size());
        if (text.compare(1, mine.size(), mine) == 0) out.push_back(text);
    }
    return out;
}

}  // namespace

TEST(TraceMarkers, SlicesAndCountersOfAShortSession) {
    const std::string why = whyNoTracing();
    if (!why.empty()) GTEST_SKIP() << why;
    TempRoot root;
    ExampleDaemon orvd(root, false);
    ASSERT_TRUE(orvd.ready()) << orvd.log();
    ASSERT_EQ(runTool(root, "orvctl", "proc-start 7 com.android.chrome").status, 0);
    // Nobody asked for the power tag yet: nothing may be written.
    ASSERT_EQ(runTool(root, "orvctl", "setprop debug.atrace.tags.enableflags 0x20000").status, 0);
    usleep(300 * 1000);  // the tags are re-read five times a second
    for (const char* e : {"start 7 com.android.chrome", "displayed 7 com.android.chrome"})
        ASSERT_EQ(runTool(root, "orvctl", e).status, 0) << e;
    ASSERT_TRUE(
        eventually([&] { return readFile(root / "dev/cpuctl/top-app/cgroup.procs") == "7"; }));
    const std::string p = std::to_string(orvd.pid());

    const std::string shown = root / "shown";
    ASSERT_EQ(system(("trace-cmd show >" + shellQuote(shown) + " 2>&1").c_str()), 0)
        << readFile(shown);
    std::vector<std::string> markers = markersOf(orvd.pid(), readFile(shown));
    auto has = [&](const std::string& m) {
        return std::find(markers.begin(), markers.end(), m) != markers.end();
    };
    EXPECT_FALSE(has("B|" + p + "|orvd:PROCESS_START 7;com.android.chrome")) << "tag was off";
    for (const std::string& m : std::vector<std::string>{
             "B|" + p + "|orvd:ACTIVITY_START 7;com.android.chrome",
             "B|" + p + "|orvd:ACTIVITY_DISPLAYED 7;com.android.chrome",
             "B|" + p + "|com.android.chrome.action.run.policy",
             "C|" + p + "|" + root / "sys/devices/system/cpu/cpu0/cpufreq/scaling_min_freq" +
                 "|1200000",
             "C|" + p + "|" + root / "dev/cpuctl/top-app/cgroup.procs" + "|7",
             "B|" + p + "|sys.orv.tune.profile=browse",
         })
        EXPECT_TRUE(has(m)) << m;
    int depth = 0;
    for (const auto& m : markers) depth += m[0] == 'B' ? 1 : m[0] == 'E' ? -1 : 0;
    EXPECT_EQ(depth, 0) << "every slice ends";
}
