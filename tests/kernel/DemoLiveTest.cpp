// "make demo-live" end to end in its short mode: the effect it measures, and that it leaves no
// cgroup, process or root behind, whether it ends by itself or by Ctrl-C.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>

#include "support/ToolRun.h"

namespace {

using orvtest::readFile;

struct DemoRun {
    orvtest::TempRoot scratch;
    std::string out = scratch / "demo.out";
    pid_t pid = -1;
    int status = -1;

    // Runs scripts/demo-live --short in its own process group, as a shell runs a foreground job.
    void start() {
        std::string dir = scratch / "plots";
        if ((pid = fork()) == 0) {
            setpgid(0, 0);
            int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(fd, 1), dup2(fd, 2);
            std::string script = orvtest::source("scripts/demo-live");
            execl(script.c_str(), script.c_str(), "--short", "--out", dir.c_str(),
                  ORV_BIN_DIR "/..", static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    bool finish() {
        if (!orvtest::eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; }, 60000))
            return false;
        pid = -1;
        return true;
    }
    ~DemoRun() {
        if (pid > 0) kill(-pid, SIGKILL), waitpid(pid, nullptr, 0);
    }
    std::string text() const { return readFile(out); }
    std::string skipped() const {
        std::string t = text();
        size_t at = t.find("demo-live: skipped: ");
        return at == std::string::npos ? "" : t.substr(at);
    }

    // Everything the run printed that it had created: its root, its groups, its processes.
    void expectNothingLeft() const {
        std::string t = text();
        std::smatch m;
        struct stat st;
        ASSERT_TRUE(std::regex_search(t, m, std::regex(R"(ORV_ROOT=(\S+)\))"))) << t;
        EXPECT_NE(0, stat(m[1].str().c_str(), &st)) << m[1] << " was left behind";
        ASSERT_TRUE(std::regex_search(t, m, std::regex(R"(groups (\S+)/\{top-app)"))) << t;
        EXPECT_NE(0, stat(m[1].str().c_str(), &st)) << m[1] << " was left behind";
        std::string trace =
            "/sys/kernel/tracing/instances" + m[1].str().substr(m[1].str().rfind('/'));
        EXPECT_NE(0, stat(trace.c_str(), &st)) << trace << " was left behind";
        int pids = 0;
        std::regex pidRe(R"((is pid|orvd is running.*\(pid) (\d+))");
        for (std::sregex_iterator i(t.begin(), t.end(), pidRe), end; i != end; ++i, ++pids)
            EXPECT_NE(0, kill(std::stoi((*i)[2]), 0)) << (*i)[0] << " is still running";
        EXPECT_GE(pids, 2) << t;
    }
};

TEST(DemoLive, ExamplePolicyChecksClean) {
    orvtest::TempRoot root;
    auto r = orvtest::runTool(
        root, "orvpolicy",
        "check " + orvtest::shellQuote(orvtest::source("examples/linux-cgroup-policy.json")));
    EXPECT_EQ(0, r.status) << r.out << r.err;
    EXPECT_EQ("0 errors, 0 warnings\n", r.out + r.err);
}

// Without root nothing can be set up: the demo says why and succeeds, having touched nothing.
TEST(DemoLive, WithoutRootSaysSkippedAndExitsZero) {
    orvtest::TempRoot scratch;
    std::string as = geteuid() != 0 ? "" : "setpriv --reuid=65534 --regid=65534 --clear-groups ";
    if (!as.empty() && system("command -v setpriv >/dev/null") != 0)
        GTEST_SKIP() << "root here, and no setpriv to drop it";
    std::string out = scratch / "demo.out";
    std::string cmd = as + orvtest::shellQuote(orvtest::source("scripts/demo-live")) +
                      " --short --out " + orvtest::shellQuote(scratch / "plots") + " " +
                      orvtest::shellQuote(ORV_BIN_DIR "/..") + " >" + orvtest::shellQuote(out) +
                      " 2>&1";
    int s = system(cmd.c_str());
    EXPECT_TRUE(WIFEXITED(s) && WEXITSTATUS(s) == 0) << s;
    EXPECT_EQ("demo-live: skipped: creating cgroups needs root (run it as root)\n", readFile(out));
}

TEST(DemoLive, ShortRunShowsTheForegroundWinningAndLeavesNothingBehind) {
    DemoRun demo;
    demo.start();
    ASSERT_TRUE(demo.finish());
    if (!demo.skipped().empty()) GTEST_SKIP() << demo.skipped();
    std::string t = demo.text();
    ASSERT_TRUE(WIFEXITED(demo.status) && WEXITSTATUS(demo.status) == 0) << t;
    demo.expectNothingLeft();

    // Per phase, the foreground's and the other's part of the two applications' CPU time: the
    // kernel's figures, so only the direction is certain on a busy machine.
    struct {
        const char* phase;
        int front;  // column of the application in front: 1 maps, 2 music, 0 none
    } phases[] = {
        {"1 without orvd", 0},
        {"2 maps in front", 1},
        {"3 music in front", 2},
        {"4 maps in front again", 1},
    };
    for (const auto& p : phases) {
        std::smatch m;
        std::regex row(std::string(p.phase) + R"( .* ([\d.]+) : +([\d.]+)\n)");
        ASSERT_TRUE(std::regex_search(t, m, row)) << p.phase << "\n" << t;
        if (p.front == 0) continue;
        double front = std::stod(m[p.front]), other = std::stod(m[3 - p.front]);
        EXPECT_GT(front, 2 * other) << p.phase << "\n" << t;
    }
    EXPECT_NE(t.find("== Measured: with orvd the application in front got "), std::string::npos);
    EXPECT_NE(t.find("transit to maps"), std::string::npos) << t;

    std::string data = readFile(demo.scratch / "plots/demo-live.dat");
    EXPECT_GE(std::count(data.begin(), data.end(), '\n'), 20) << data;
    if (system("command -v gnuplot >/dev/null") == 0) {
        EXPECT_EQ(0u, readFile(demo.scratch / "plots/demo-live.png").find("\x89PNG"));
    }
}

TEST(DemoLive, CtrlCInTheMiddleLeavesNothingBehind) {
    DemoRun demo;
    demo.start();
    bool running = orvtest::eventually(
        [&] {
            return demo.text().find("== Phase 3") != std::string::npos || !demo.skipped().empty();
        },
        60000);
    if (!demo.skipped().empty()) GTEST_SKIP() << demo.skipped();
    ASSERT_TRUE(running) << demo.text();
    kill(-demo.pid, SIGINT);  // what the terminal does on Ctrl-C: the whole foreground group
    ASSERT_TRUE(demo.finish());
    EXPECT_TRUE(WIFEXITED(demo.status) && WEXITSTATUS(demo.status) == 130) << demo.status << "\n"
                                                                           << demo.text();
    demo.expectNothingLeft();
}

}  // namespace
