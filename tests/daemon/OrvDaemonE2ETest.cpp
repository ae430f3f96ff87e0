// The real bin/orvd in a temporary root, spoken to over its control socket.
#include <cutils/sockets.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <random>
#include <thread>

#include "OrvDaemonTestUtil.h"
#include "tools/codec/OrvPolicyEncoder.h"

namespace {

using orvtest::eventually;
using orvtest::frame;
using orvtest::readFile;

// A client of the daemon's socket under this process's ORV_ROOT.
struct Client {
    int fd = socket_local_client("orvd", ANDROID_SOCKET_NAMESPACE_RESERVED, SOCK_STREAM);
    ~Client() { close(fd); }
    bool ok() const { return fd >= 0; }
    bool send(const std::string& b) {
        return ::send(fd, b.data(), b.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(b.size());
    }
    // One reply without its NUL; "" on time-out.
    std::string ask(int code, const std::string& payload) {
        std::string out;
        pollfd p{fd, POLLIN, 0};
        if (!send(frame(code, payload))) return "";
        for (char c; poll(&p, 1, orvtest::kWaitMs) > 0 && read(fd, &c, 1) == 1; out += c)
            if (c == '\0') return out;
        return "";
    }
};

// clang-format off
std::string policy(const std::string& node, const std::string& version) {
    const std::string xfs = R"({ "method": "xfs", "path": ")" + node + R"(", "type": "string", )";
    return R"({ "parser": "v1.0", "version": ")" + version + R"(",
  "default": { "action": { "reset": { "policy": [] } } },
  "applications": {
    "com.a": { "param": { "event_mask": "101", "gesture_tap_timeout": "400" },
      "action": { "run": { "on_enter": [ )" + xfs + R"("value": "run" } ] },
        "gesture_tap": { "on_enter": [ )" + xfs + R"("value": "tap" },
          { "method": "prop", "path": "orv.test.tap", "type": "string", "value": "yes" } ] } } },
    "com.b": { "param": { "event_mask": "11" } } } })";
}
// clang-format on

class DaemonTest : public ::testing::Test {
  protected:
    ~DaemonTest() override {
        if (pid > 0) kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
    }
    bool start(bool debug = false, bool wait = true) {
        if (debug) root.write("dev/__properties__/sys.orv.debug.daemon", "1");
        std::string err = root / "orvd.err";
        if ((pid = fork()) == 0) {
            dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
            // Programs the policy starts may outlive the daemon: keep them off the test's pipe.
            dup2(open("/dev/null", O_WRONLY), 1);
            execl(ORV_BIN_DIR "/orvd", "orvd", static_cast<char*>(nullptr));
            _exit(127);
        }
        return !wait || eventually([&] { return Client().ok(); });
    }
    std::string log() const { return readFile(root / "orvd.err"); }
    bool logged(const std::string& part) const { return log().find(part) != std::string::npos; }
    bool waitLog(const std::string& part) {
        return eventually([&] { return logged(part); });
    }
    bool alive() { return pid > 0 && waitpid(pid, nullptr, WNOHANG) == 0; }
    std::string property(const std::string& name) const {
        return readFile(root / ("dev/__properties__/" + name));
    }
    bool dumpHas(Client& c, const std::string& part) {
        return c.ask(900, "").find(part) != std::string::npos;
    }

    orvtest::TempRoot root;
    std::string node = root.write("sys/node", "---"),
                db = root.write("data/orvpolicy", policy(node, "v1.0"));
    pid_t pid = -1;
};

TEST_F(DaemonTest, PublishesEnableAnswersQueriesDumpAndLongMessagesThenStopsOnSigint) {
    ASSERT_TRUE(start()) << log();
    EXPECT_EQ("true", property("sys.orv.enable"));
    Client c;
    std::string dump = c.ask(900, "");
    EXPECT_EQ(0u, dump.find("900 [version]: v1.0\n[Context]:\n")) << dump;
    EXPECT_LT(dump.find("   IsScreenOn: true\n"), dump.find("[ActionManager]\n")) << dump;

    std::string payload(700, 'p');  // more than one read of the listener
    EXPECT_EQ("7 -1", c.ask(7, payload));
    EXPECT_TRUE(logged("W OrvListener: buffer may be too small. message may be cut this time."));
    EXPECT_TRUE(logged("undefined code(7)|" + payload));

    int status = -1;
    kill(pid, SIGINT), waitpid(pid, &status, 0), pid = -1;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 2) << status;
    EXPECT_TRUE(logged("I OrvMain : caught signal 2"));
}

// Every round: a fresh daemon under two streaming clients and an update every few
// milliseconds, stopped by one SIGINT at a random moment (exit() runs the destructors while
// events still arrive: none may reach a member that is already gone). It must exit with 2 at once,
// without a sanitizer report. ORV_SIGINT_ROUNDS sets the number of rounds (sanitizer builds run
// 200).
TEST_F(DaemonTest, SigintUnderLoadWithUpdatesInFlight) {
    const char* env = getenv("ORV_SIGINT_ROUNDS");
    const int rounds = env ? atoi(env) : 10;
    const std::string burst = frame(1, "100;com.a") + frame(3, "100;com.a;act;x") +
                              frame(4, "100;com.a") + frame(34, "100;2") + frame(3, "5;com.b;a;b") +
                              frame(400, "0;com.a") + frame(900, "");
    std::mt19937 rng(2);
    int version = 1;
    for (int round = 0; round < rounds; ++round) {
        ASSERT_TRUE(start(round % 4 == 0)) << log();
        std::atomic<bool> stop{false};
        std::vector<std::thread> load;
        for (int i = 0; i < 2; ++i)
            load.emplace_back([&] {
                Client c;
                char sink[4096];
                while (!stop && c.send(burst))
                    while (recv(c.fd, sink, sizeof(sink), MSG_DONTWAIT) > 0) continue;
            });
        load.emplace_back([&] {
            Client c;
            for (int u = 0; !stop; ++u) {
                std::string next = root.write("u" + std::to_string(u) + ".json",
                                              policy(node, "v" + std::to_string(++version)));
                if (!c.send(frame(301, next))) break;
                std::this_thread::sleep_for(std::chrono::milliseconds(3));
            }
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(20 + rng() % 80));
        kill(pid, SIGINT);
        int status = -1;
        bool ended = eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; });
        if (!ended) kill(pid, SIGKILL), waitpid(pid, &status, 0);
        pid = -1;
        stop = true;
        for (auto& t : load) t.join();
        const std::string l = log();
        ASSERT_TRUE(ended) << "round " << round << " hung:\n" << l;
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 2)
            << "round " << round << " status " << status << ":\n"
            << l;
        for (const char* report : {"Sanitizer", "runtime error"})
            ASSERT_EQ(std::string::npos, l.find(report)) << "round " << round << ":\n" << l;
    }
}

// A running "program" must not keep SIGINT away: system() would ignore it until the child ends.
TEST_F(DaemonTest, SigintEndsTheDaemonWhileAProgramRuns) {
    std::string text, error;
    OrvProtectOptions opts;
    const std::string doc = R"({ "parser": "v1.0", "version": "v1.0",
      "applications": { "com.a": { "action": { "run": { "on_enter": [
        { "method": "xfs", "path": ")" +
                            node + R"(", "type": "string", "value": "run" },
        { "method": "program", "path": "sleep", "type": "string", "value": "20" } ] } } } } })";
    ASSERT_TRUE(orvProtectPolicy(doc, opts, text, &error)) << error;
    root.write("data/orvpolicy", text);
    ASSERT_TRUE(start(true)) << log();
    ASSERT_TRUE(
        Client().send(frame(1, "100;com.a") + frame(3, "100;com.a;act;x") + frame(4, "100;com.a")));
    ASSERT_TRUE(eventually([&] { return readFile(node) == "run"; })) << log();
    ASSERT_TRUE(waitLog("path:sleep value:20}")) << log();
    // The line comes before the spawn: wait for the shell to be one of orvd's children.
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    ASSERT_TRUE(eventually([&] {
        std::error_code ec;
        for (const auto& t : std::filesystem::directory_iterator(tasks, ec))
            if (!readFile(t.path().string() + "/children").empty()) return true;
        return false;
    })) << log();
    kill(pid, SIGINT);
    int status = -1;
    // The stop waits seconds at most for the running work, far less than the program's 20 s.
    EXPECT_TRUE(eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; }, 15000)) << log();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 2) << status;
    if (WIFEXITED(status)) pid = -1;
}

TEST_F(DaemonTest, PolicyRunsAndGestureTimesOutBackToRun) {
    ASSERT_TRUE(start(true)) << log();
    Client c;
    ASSERT_TRUE(c.send(frame(1, "100;com.a") + frame(3, "100;com.a;act;x") + frame(4, "100;com.a")));
    EXPECT_TRUE(eventually([&] { return readFile(node) == "run"; })) << readFile(node);
    ASSERT_TRUE(c.send(frame(34, "100;2")));
    EXPECT_TRUE(dumpHas(c, "   State     : gesture_tap\n"));
    EXPECT_TRUE(eventually([&] { return property("orv.test.tap") == "yes"; }));
    // The timer's own frame comes back over the socket and ends the gesture.
    EXPECT_TRUE(eventually([&] { return dumpHas(c, "   State     : run\n"); })) << log();
    EXPECT_TRUE(eventually([&] { return readFile(node) == "run"; }));
}

TEST_F(DaemonTest, ConfigurationUpdateTakesEffectAtTheNextAppSwitch) {
    ASSERT_TRUE(start(true)) << log();
    std::string next = root.write("incoming.json", policy(node, "v2.0"));
    Client c;
    ASSERT_TRUE(c.send(frame(301, next)));
    ASSERT_TRUE(waitLog("new DB " + next + " is prepared to update)")) << log();
    ASSERT_TRUE(c.send(frame(3, "5;com.b;a;b")));
    EXPECT_TRUE(waitLog("I OrvActionManager: DB updated"));
    EXPECT_TRUE(eventually([&] { return dumpHas(c, "v2.0"); }));
}

TEST_F(DaemonTest, ParksWithoutAPolicy) {
    unlink(db.c_str());
    start(false, false);
    ASSERT_TRUE(waitLog("I OrvMain : disabled")) << log();
    EXPECT_EQ("false", property("sys.orv.enable"));
    EXPECT_TRUE(alive());
    EXPECT_FALSE(Client().ok());
}

// Parallel clients, clients gone before their replies, then bounded random input: the daemon
// must stay up and keep accepting, whatever the framing makes of it (a stalled header may keep
// it from dispatching anything ever again).
TEST_F(DaemonTest, ManyClientsVanishingClientsAndRandomBytes) {
    ASSERT_TRUE(start(true)) << log();
    const int kClients = 16, kQueries = 25, kVanish = 100, kRandom = 300;
    std::atomic<int> good{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kClients; ++i)
        threads.emplace_back([&, i] {
            Client c;
            for (int q = i; q < i + kQueries; ++q)
                good += q % 2 ? c.ask(400, "0;com.b") == "400 3" : c.ask(400, "0;com.a") == "400 5";
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(kClients * kQueries, good.load());
    for (int i = 0; i < kVanish; ++i) {
        Client c;
        ASSERT_TRUE(c.ok());
        if (i % 4 != 0) c.send(frame(900, "") + frame(400, "0;com.a"));
    }
    EXPECT_EQ("400 5", Client().ask(400, "0;com.a"));

    std::mt19937 rng(12345);
    const std::string alphabet = "[],;-0123456789abc\n";
    for (int i = 0; i < kRandom; ++i) {
        Client c;
        ASSERT_TRUE(c.ok()) << "connection " << i;
        std::string bytes(1 + rng() % 900, '\0');
        for (auto& b : bytes)
            b = rng() % 4 == 0 ? static_cast<char>(rng()) : alphabet[rng() % alphabet.size()];
        c.send(bytes);
    }
    // Each hang-up (the readiness probe's too) is logged, only after all that client sent has
    // been consumed: as "msg(0):", or as a reset when it left a reply unread.
    auto closed = [&] {
        std::string l = log();
        int n = 0;
        for (const char* mark : {") msg(0):", "read() failed (Connection reset by peer)"})
            for (size_t at = 0; (at = l.find(mark, at)) != std::string::npos; ++at) ++n;
        return n;
    };
    const int all = 1 + kClients + kVanish + 1 + kRandom;
    EXPECT_TRUE(eventually([&] { return closed() >= all; }, 30000)) << closed();
    EXPECT_TRUE(alive());
    EXPECT_TRUE(Client().ok());
}

// Each ioctl execution keeps its descriptor for the daemon's life: with a low soft limit from
// the launcher, 260 app switches must still leave the daemon reachable.
TEST_F(DaemonTest, StaysReachableAfterManyKeptIoctlDescriptors) {
    rlimit old;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &old));
    if (old.rlim_max < 1024) GTEST_SKIP() << "the hard descriptor limit is below 1024";
    const std::string ioctl =
        R"({ "method": "orv_ioctl", "path": ")" + node + R"(", "cmd": 1, "value": "1" })";
    root.write("data/orvpolicy", R"({ "parser": "v1.0", "version": "v1.0",
      "default": { "action": { "reset": { "policy": [] } } },
      "applications": { "com.a": { "action": { "run": { "on_enter": [ )" +
                                     ioctl + R"( ] } } },
                        "com.b": { "action": { "run": { "on_enter": [ )" +
                                     ioctl + R"( ] } } } } })");
    rlimit low = old;
    low.rlim_cur = 256;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &low));
    const bool started = start();
    setrlimit(RLIMIT_NOFILE, &old);
    ASSERT_TRUE(started) << log();
    const std::string fdDir = "/proc/" + std::to_string(pid) + "/fd";
    auto openFds = [&] {
        size_t n = 0;
        for ([[maybe_unused]] auto& e : std::filesystem::directory_iterator(fdDir)) ++n;
        return n;
    };
    const size_t before = openFds();
    std::string switches;
    for (int i = 0; i < 260; ++i) {
        const std::string app = i % 2 ? "com.b" : "com.a", pidText = std::to_string(100 + i % 2);
        switches += frame(1, pidText + ";" + app) + frame(3, pidText + ";" + app + ";act;x") +
                    frame(4, pidText + ";" + app);
    }
    Client c;
    ASSERT_TRUE(c.send(switches));
    EXPECT_TRUE(eventually([&] { return openFds() >= before + 260; })) << openFds() << log();
    EXPECT_NE("", Client().ask(900, "")) << "unreachable";
    EXPECT_NE("", c.ask(900, ""));
}

// Clients that never read their replies cost the others nothing: their replies wait (or they
// are cut off) while another client's dump is answered at once.
TEST_F(DaemonTest, ClientsThatNeverReadDoNotDelayAnotherClientsDump) {
    ASSERT_TRUE(start()) << log();
    std::vector<std::unique_ptr<Client>> silent;
    std::string asks;
    for (int i = 0; i < 1000; ++i) asks += frame(900, "");
    for (int i = 0; i < 5; ++i) {
        silent.push_back(std::make_unique<Client>());
        ASSERT_TRUE(silent.back()->send(asks));
    }
    // The silent clients never read: a listener blocked on one of them would never answer.
    EXPECT_NE("", Client().ask(900, ""));
    EXPECT_TRUE(alive());
}

}  // namespace
