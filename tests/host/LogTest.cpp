#include <android/log.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <orvhost/host.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/OrvTestSupport.h"

namespace {

// Runs `fn` with fd 2 captured and returns the lines written.
std::vector<std::string> captureStderr(const std::function<void()>& fn) {
    testing::internal::CaptureStderr();
    fn();
    std::string all = testing::internal::GetCapturedStderr(), line;
    EXPECT_TRUE(all.empty() || all.back() == '\n') << "output must end with a line feed";
    std::vector<std::string> out;
    for (std::istringstream in(all); std::getline(in, line);) out.push_back(line);
    return out;
}

struct Parsed {
    std::string head, pid, tid, level, text;  // level: from the level letter's blank to ": "
};

Parsed parse(const std::string& line) {
    static const std::regex kLine(
        R"(^(\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} ( *\d+) ( *\d+)( [A-Z] .*?: ))(.*)$)");
    std::smatch m;
    EXPECT_TRUE(std::regex_match(line, m, kLine)) << line;
    return m.empty() ? Parsed{} : Parsed{m[1], m[2], m[3], m[4], m[5]};
}

std::vector<std::string> logged(int prio, const char* tag, const std::string& text) {
    return captureStderr([&] { __android_log_print(prio, tag, "%s", text.c_str()); });
}

TEST(Log, ThreadtimeHeaderLevelsAndTagPadding) {
    const std::tuple<int, const char*, std::string> cases[] = {
        {ANDROID_LOG_INFO, "OrvMain", " I OrvMain : "},
        {ANDROID_LOG_VERBOSE, "T", " V T       : "},
        {ANDROID_LOG_DEBUG, "T", " D T       : "},
        {ANDROID_LOG_WARN, "T", " W T       : "},
        {ANDROID_LOG_ERROR, "T", " E T       : "},
        {ANDROID_LOG_FATAL, "T", " F T       : "},
        {ANDROID_LOG_ERROR, nullptr, " E         : "},
        {ANDROID_LOG_ERROR, "ExactlyE", " E ExactlyE: "},
        {ANDROID_LOG_ERROR, "SocketListener", " E SocketListener: "},
    };
    for (const auto& [prio, tag, tail] : cases) {
        auto l = logged(prio, tag, "hi");
        ASSERT_EQ(1u, l.size());
        Parsed p = parse(l[0]);
        EXPECT_EQ(std::make_tuple(tail, "hi", getpid()),
                  std::make_tuple(p.level, p.text, atoi(p.pid.c_str())));
        EXPECT_EQ(std::make_tuple(5u, 5u), std::make_tuple(p.pid.size(), p.tid.size()));
    }
}

TEST(Log, MultiLineTextsShareTheHeader) {
    std::string big(5000, 'q');
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {"one\n", {"one"}},
        {"one\ntwo", {"one", "two"}},
        {"a\n\nb", {"a", "", "b"}},
        {"a\n\n", {"a", ""}},
        {"\n", {""}},
        {"", {""}},
        {big, {big}},
    };
    for (const auto& [text, expected] : cases) {
        auto lines = logged(ANDROID_LOG_WARN, "Multi", text);
        ASSERT_EQ(expected.size(), lines.size()) << text;
        for (size_t i = 0; i < lines.size(); ++i) {
            EXPECT_EQ(expected[i], parse(lines[i]).text);
            EXPECT_EQ(parse(lines[0]).head, parse(lines[i]).head);
        }
    }
}

TEST(Log, HookSeesWholeTextOnceAndEchoSwitch) {
    auto lines = captureStderr([] {
        {
            orvtest::LogCapture quiet(false);
            errno = ENOENT;
            __android_log_print(ANDROID_LOG_ERROR, "OrvTimer", "connect fail (ret=%d)\n", -1);
            EXPECT_EQ(ENOENT, errno);
            auto recs = quiet.records();
            ASSERT_EQ(1u, recs.size());
            EXPECT_EQ(std::make_tuple(ANDROID_LOG_ERROR, std::string("OrvTimer"),
                                      std::string("connect fail (ret=-1)\n")),
                      std::make_tuple(recs[0].prio, recs[0].tag, recs[0].text));
        }
        {
            orvtest::LogCapture loud(true);
            __android_log_write(ANDROID_LOG_INFO, nullptr, "echoed");
            EXPECT_TRUE(loud.has("echoed"));
        }
        __android_log_write(ANDROID_LOG_INFO, "T", "after");  // no hook: plain stderr
    });
    ASSERT_EQ(2u, lines.size()) << "echo=false keeps records off stderr";
    EXPECT_EQ("echoed", parse(lines[0]).text);
    EXPECT_EQ("after", parse(lines[1]).text);
}

TEST(Log, ConcurrentRecordsDoNotInterleave) {
    constexpr int kThreads = 4, kRecords = 200;
    auto lines = captureStderr([] {
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([t] {
                for (int i = 0; i < kRecords; ++i)
                    __android_log_print(ANDROID_LOG_DEBUG, "C", "%d.%d first\n%d.%d second", t, i,
                                        t, i);
            });
        for (auto& th : threads) th.join();
    });
    ASSERT_EQ(size_t(kThreads * kRecords * 2), lines.size());
    for (size_t i = 0; i < lines.size(); i += 2) {
        Parsed a = parse(lines[i]), b = parse(lines[i + 1]);
        ASSERT_EQ(" first", a.text.substr(a.text.size() - 6));
        EXPECT_EQ(a.text.substr(0, a.text.size() - 6) + " second", b.text);
        EXPECT_EQ(a.tid, b.tid);
    }
}

// The date and time are kept per second: each record still shows the local time it was written
// at, across second boundaries. The bracket comes from the records' own clock: time() can lag it
// by a tick.
TEST(Log, HeaderClockIsTheLocalTimeOfEachRecord) {
    auto clockText = [](const struct timespec& t) {
        struct tm tm;
        localtime_r(&t.tv_sec, &tm);
        char text[32];
        strftime(text, sizeof(text), "%m-%d %H:%M:%S", &tm);
        return std::string(text);
    };
    for (int i = 0; i < 3; ++i) {
        struct timespec before, after;
        clock_gettime(CLOCK_REALTIME, &before);
        auto l = logged(ANDROID_LOG_INFO, "T", "tick");
        clock_gettime(CLOCK_REALTIME, &after);
        ASSERT_EQ(1u, l.size());
        std::string shown = l[0].substr(0, 14);
        EXPECT_TRUE(shown == clockText(before) || shown == clockText(after)) << l[0];
        // Into the next second, a few milliseconds past its start.
        usleep(static_cast<useconds_t>((1000000000L - after.tv_nsec) / 1000 + 5000));
    }
}

// Pid and tid are cached per process and per thread: a record still names the process and
// thread that wrote it, after fork() and on every thread.
TEST(Log, PidAndTidAreTheWritersAfterForkAndOnEveryThread) {
    auto lines = captureStderr([] {
        __android_log_write(ANDROID_LOG_INFO, "T", "parent");
        pid_t child = fork();
        if (child == 0) {
            __android_log_write(ANDROID_LOG_INFO, "T", "child");
            _exit(0);
        }
        waitpid(child, nullptr, 0);
        std::thread([] { __android_log_write(ANDROID_LOG_INFO, "T", "thread"); }).join();
    });
    ASSERT_EQ(3u, lines.size());
    Parsed parent = parse(lines[0]), child = parse(lines[1]), thread = parse(lines[2]);
    EXPECT_EQ(getpid(), atoi(parent.pid.c_str()));
    EXPECT_EQ(gettid(), atoi(parent.tid.c_str()));
    EXPECT_NE(parent.pid, child.pid);
    EXPECT_EQ(child.pid, child.tid);  // the only thread of the child
    EXPECT_EQ(parent.pid, thread.pid);
    EXPECT_NE(parent.tid, thread.tid);
}

// A handler that logs while the interrupted thread is in the middle of a record: with a lock
// around the write this deadlocks within a few thousand records.
TEST(Log, ASignalHandlerThatLogsNeverWaitsForTheInterruptedRecord) {
    pid_t child = fork();
    if (child == 0) {
        dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
        signal(SIGALRM, [](int) { __android_log_write(ANDROID_LOG_INFO, "OrvMain", "caught"); });
        itimerval every{{0, 200}, {0, 200}};
        setitimer(ITIMER_REAL, &every, nullptr);
        for (int i = 0; i < 20000; ++i)
            __android_log_print(ANDROID_LOG_DEBUG, "T", "record %d\nsecond line", i);
        _exit(0);
    }
    int status = -1;
    if (!orvtest::eventually([&] { return waitpid(child, &status, WNOHANG) == child; })) {
        kill(child, SIGKILL), waitpid(child, &status, 0);
        FAIL() << "the handler deadlocked";
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST(HostPath, ResolvesUnderRoot) {
    const char* cases[][3] = {
        // root (nullptr: unset), device path, host path
        {nullptr, "/data/orvpolicy", "/data/orvpolicy"},
        {"", "/data/orvpolicy", "/data/orvpolicy"},
        {"/", "/data/orvpolicy", "/data/orvpolicy"},
        {"/tmp/r/", "/data/orvpolicy", "/tmp/r/data/orvpolicy"},
        {"/tmp/r//", "/dev/socket/", "/tmp/r/dev/socket/"},
        {"rel", "/system/etc/orvpolicy", "rel/system/etc/orvpolicy"},
    };
    for (const auto& [root, device, host] : cases) {
        root ? setenv("ORV_ROOT", root, 1) : unsetenv("ORV_ROOT");
        EXPECT_EQ(host, orvhost_path(device)) << (root ? root : "(unset)");
    }
    unsetenv("ORV_ROOT");
}

}  // namespace
