// The real bin/orvd in a temporary root, spoken to over its control socket.
#include <cutils/sockets.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <thread>

#include "OrvDaemonTestUtil.h"
#include "support/Orvd.h"
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
    bool start(bool debug = false, bool wait = true) {
        // As init does from orvd.rc's "socket" line, where the check of the real platform asks.
        const int handed = initSockets() && handOver && !getenv("ANDROID_SOCKET_orvd")
                               ? bindSocket(std::string(initSockets()) + "/orvd", false)
                               : -1;
        orvd.start(debug, [&] {
            if (handed >= 0) setenv("ANDROID_SOCKET_orvd", std::to_string(handed).c_str(), 1);
            if (fdLimit) {
                rlimit rl = {fdLimit, fdLimit};
                setrlimit(RLIMIT_NOFILE, &rl);
            }
        });
        if (handed >= 0) close(handed);
        return !wait || eventually([&] { return Client().ok(); });
    }
    // Where init would create sockets; null: the platform creates its own (host stand-in).
    static const char* initSockets() { return getenv("ORV_TEST_INIT_SOCKETS"); }
    // A socket bound at `path`: listening, as another daemon would hold it, or not listening
    // with mode 0660, as init leaves it for the daemon to inherit.
    static int bindSocket(const std::string& path, bool listening) {
        std::filesystem::create_directories(path.substr(0, path.rfind('/')));
        unlink(path.c_str());
        sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
        int fd = socket(AF_UNIX, SOCK_STREAM | (listening ? SOCK_CLOEXEC : 0), 0);
        if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
            (listening ? listen(fd, 4) : chmod(path.c_str(), 0660)) != 0)
            ADD_FAILURE() << "cannot bind " << path;
        return fd;
    }
    std::string log() const { return orvd.log(); }
    bool waitLog(const std::string& part) {
        return eventually([&] { return orvd.logged(part); });
    }
    std::string property(const std::string& name) const {
        return readFile(root / ("dev/__properties__/" + name));
    }
    bool dumpHas(Client& c, const std::string& part) {
        return c.ask(900, "").find(part) != std::string::npos;
    }
    // SIGINT must end the daemon promptly, with status 2 and without a platform error.
    void stopBySigint() {
        const int status = orvd.stop(SIGINT);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 2)
            << "SIGINT did not stop the daemon: " << status << "\n"
            << log();
        const std::string l = log();
        const size_t caught = l.find("I OrvMain : caught signal 2");
        EXPECT_NE(std::string::npos, caught);
        EXPECT_EQ(std::string::npos, l.find(" E SocketListener", caught)) << l;
    }
    orvtest::TempRoot root;
    int taken = -1;
    rlim_t fdLimit = 0;    // soft and hard descriptor limit of the daemon; 0: as inherited
    bool handOver = true;  // where init makes sockets: whether it makes orvd's
    std::string node = root.write("sys/node", "---"),
                db = root.write("data/orvpolicy", policy(node, "v1.0"));
    orvtest::Orvd orvd{root};
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
    EXPECT_TRUE(
        orvd.logged("W OrvListener: buffer may be too small. message may be cut this time."));
    EXPECT_TRUE(orvd.logged("undefined code(7)|" + payload));
    stopBySigint();
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
        const int status = orvd.stop(SIGINT);
        stop = true;
        for (auto& t : load) t.join();
        const std::string l = log();
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
    const std::string tasks = "/proc/" + std::to_string(orvd.pid()) + "/task";
    ASSERT_TRUE(eventually([&] {
        std::error_code ec;
        for (const auto& t : std::filesystem::directory_iterator(tasks, ec))
            if (!readFile(t.path().string() + "/children").empty()) return true;
        return false;
    })) << log();
    // The stop waits seconds at most for the running work, far less than the program's 20 s.
    const int status = orvd.stop(SIGINT, 15000);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 2) << status << "\n" << log();
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

// Without a policy, or without a socket to listen on, the daemon parks: alive, idle, "false",
// the cause said once; SIGINT still stops it cleanly (there is no listener to stop).
TEST_F(DaemonTest, ParksWithoutAPolicyOrASocket) {
    const struct {
        const char* name;
        std::function<void()> prepare;
        const char* error;  // orvd's one line about it, if any
        bool hostOnly;      // the host stand-in creates the socket itself
        bool initOnly;      // only init creates it
    } rows[] = {
        {"no policy", [this] { unlink(db.c_str()); }, nullptr, false, false},
        // Another daemon already answers on the socket's name.
        {"socket taken", [this] { taken = bindSocket(root / "dev/socket/orvd", true); },
         "E OrvOrvello: cannot listen on socket \"orvd\" (Address already in use)", true, false},
        // Handed over by the launcher, but not a socket: the daemon's standard error.
        {"not a socket", [] { setenv("ANDROID_SOCKET_orvd", "2", 1); },
         "E OrvOrvello: cannot listen on socket \"orvd\" (Socket operation on non-socket)", false,
         false},
        // orvd.rc without its "socket" line.
        {"no socket from init", [this] { handOver = false; },
         "E OrvOrvello: cannot listen on socket \"orvd\" (not handed over by init)", false, true},
    };
    for (const auto& r : rows) {
        if ((r.hostOnly && initSockets()) || (r.initOnly && !initSockets())) continue;
        SCOPED_TRACE(r.name);
        r.prepare();
        unlink((root / "orvd.log").c_str());  // the last row's log must not answer for this one
        start(false, false);
        unsetenv("ANDROID_SOCKET_orvd");
        handOver = true;
        ASSERT_TRUE(waitLog("I OrvMain : disabled")) << log();
        EXPECT_EQ("false", property("sys.orv.enable"));
        EXPECT_TRUE(orvd.alive());
        if (r.error) {
            EXPECT_EQ(1, orvd.count(r.error)) << log();
        } else {
            EXPECT_FALSE(Client().ok());
        }
        stopBySigint();
        if (taken >= 0) close(taken), taken = -1;
        root.write("data/orvpolicy", policy(node, "v1.0"));
    }
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
    // been consumed: as "msg(0):", as a reset when it left a reply unread, or as a drop when a
    // reply found it gone.
    auto closed = [&] {
        std::string l = log();
        int n = 0;
        for (const char* mark : {") msg(0):", "read() failed (Connection reset by peer)",
                                 ") takes no replies: dropped"})
            for (size_t at = 0; (at = l.find(mark, at)) != std::string::npos; ++at) ++n;
        return n;
    };
    const int all = 1 + kClients + kVanish + 1 + kRandom;
    EXPECT_TRUE(eventually([&] { return closed() >= all; }, 30000)) << closed();
    EXPECT_TRUE(orvd.alive());
    EXPECT_TRUE(Client().ok());
}

// Each ioctl execution keeps its descriptor for the daemon's life while there is room: under a
// low soft limit the daemon raises it and keeps them all; under a low hard limit it stops
// keeping them (said once) before clients are left without descriptors.
TEST_F(DaemonTest, KeptIoctlDescriptorsLeaveRoomForClients) {
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
    const std::string warning = "W OrvActionManager: descriptor ";
    const struct {
        const char* name;
        bool lowSoft;      // soft limit 256 from the launcher, hard as it is
        rlim_t hardLimit;  // both limits; 0: not set
        bool keepsAll;
    } rows[] = {
        {"low soft limit, raised", true, 0, true},
        {"low hard limit", false, 200, false},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        rlimit low = old;
        low.rlim_cur = 256;
        if (r.lowSoft) {
            ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &low));
        }
        fdLimit = r.hardLimit;
        const bool started = start();
        setrlimit(RLIMIT_NOFILE, &old);
        ASSERT_TRUE(started) << log();
        const std::string fdDir = "/proc/" + std::to_string(orvd.pid()) + "/fd";
        auto openFds = [&] {
            size_t n = 0;
            for ([[maybe_unused]] auto& e : std::filesystem::directory_iterator(fdDir)) ++n;
            return n;
        };
        const size_t before = openFds();
        std::string switches;
        for (int i = 0; i < 300; ++i) {
            const std::string app = i % 2 ? "com.b" : "com.a", pidText = std::to_string(100 + i % 2);
            switches += frame(1, pidText + ";" + app) + frame(3, pidText + ";" + app + ";act;x") +
                        frame(4, pidText + ";" + app);
        }
        Client c;
        ASSERT_TRUE(c.send(switches));
        // The node is no driver: every execution logs its failed ioctl, once it has run.
        EXPECT_TRUE(eventually([&] { return orvd.count("E OrvActionManager: orv_ioctl{") >= 300; }));
        if (r.keepsAll) {
            EXPECT_GE(openFds(), before + 300);
        } else {
            EXPECT_LE(openFds(), r.hardLimit - 62) << "too few descriptors left for clients";
        }
        // Room for a crowd of clients at once.
        std::vector<std::unique_ptr<Client>> crowd;
        for (int i = 0; i < 40; ++i) crowd.push_back(std::make_unique<Client>());
        for (auto& k : crowd) EXPECT_NE("", k->ask(900, "")) << "unreachable";
        EXPECT_EQ(r.keepsAll ? 0 : 1, orvd.count(warning)) << "said once";
        crowd.clear();
        stopBySigint();
    }
}

// Two clients write bursts longer than one read at the same time, so their frames are split
// across reads that the listener interleaves: each connection's frames are joined from its own
// bytes only, and every query of both is answered in order.
TEST_F(DaemonTest, TwoClientsBurstsSplitAcrossReadsAreAllAnswered) {
    ASSERT_TRUE(start()) << log();
    const int kBursts = 20, kFrames = 50;
    std::atomic<int> good{0};
    std::vector<std::thread> clients;
    for (int k = 0; k < 2; ++k)
        clients.emplace_back([&, k] {
            Client c;
            const std::string q = frame(400, k ? "0;com.a" : "0;com.b"),
                              want = k ? "400 5" : "400 3";
            std::string burst;
            for (int i = 0; i < kFrames; ++i) burst += q;
            for (int b = 0; b < kBursts && c.send(burst); ++b) {
                std::string reply;
                pollfd p{c.fd, POLLIN, 0};
                for (int got = 0; got < kFrames && poll(&p, 1, orvtest::kWaitMs) > 0;) {
                    char buf[512];
                    ssize_t n = read(c.fd, buf, sizeof(buf));
                    if (n <= 0) return;
                    for (ssize_t i = 0; i < n; ++i) {
                        if (buf[i] != '\0') {
                            reply += buf[i];
                            continue;
                        }
                        good += reply == want;
                        reply.clear();
                        ++got;
                    }
                }
            }
        });
    for (auto& t : clients) t.join();
    EXPECT_EQ(2 * kBursts * kFrames, good.load());
    // Split frames wait for their rest; nothing is ever thrown away.
    EXPECT_FALSE(orvd.logged("clear msg") || orvd.logged("skip to first head")) << log();
}

// Clients that never read their replies, or read a byte a second, cost only themselves: each is
// dropped at its first undeliverable reply with one line, while another client is answered,
// events and the timer's time-outs flow, and SIGINT stops the daemon at once.
TEST_F(DaemonTest, ClientsThatDoNotReadCostOnlyThemselves) {
    ASSERT_TRUE(start()) << log();
    std::string asks;
    for (int i = 0; i < 1000; ++i) asks += frame(900, "");
    std::vector<std::unique_ptr<Client>> silent;
    auto addSilent = [&](int n) {
        for (int i = 0; i < n; ++i) {
            silent.push_back(std::make_unique<Client>());
            ASSERT_TRUE(silent.back()->send(asks));
        }
    };
    addSilent(5);
    // A client that reads one byte a second: real time must pass between its reads, and the
    // end of the test wakes it at once.
    std::mutex stopLock;
    std::condition_variable stopped;
    bool stop = false;
    std::thread trickle([&] {
        Client c;
        if (!c.send(asks)) return;
        std::unique_lock<std::mutex> lock(stopLock);
        for (char byte; recv(c.fd, &byte, 1, MSG_DONTWAIT) != 0;)
            if (stopped.wait_for(lock, std::chrono::seconds(1), [&] { return stop; })) return;
    });
    Client polite;
    EXPECT_NE("", polite.ask(900, "")) << "another client waited";
    // An app switch, then a gesture that only the timer's own frame ends.
    ASSERT_TRUE(polite.send(frame(1, "100;com.a") + frame(3, "100;com.a;act;x") +
                            frame(4, "100;com.a") + frame(34, "100;2")));
    EXPECT_TRUE(eventually([&] { return property("orv.test.tap") == "yes"; })) << log();
    EXPECT_TRUE(eventually([&] { return dumpHas(polite, "   State     : run\n"); })) << log();
    const std::string dropped = "W OrvMsgHandler: client(fd=";
    EXPECT_TRUE(eventually([&] { return orvd.count(dropped) >= 6; })) << log();
    EXPECT_EQ(6, orvd.count(dropped)) << "one line per client, not one per reply";
    addSilent(3);  // stopped while they are being answered
    stopBySigint();
    {
        std::lock_guard<std::mutex> lock(stopLock);
        stop = true;
    }
    stopped.notify_all();
    trickle.join();
}

}  // namespace

// "on_stop" puts the node back on SIGINT and on SIGTERM; without it SIGINT exits as always and
// SIGTERM keeps its default action.
TEST_F(DaemonTest, OnStopRestoresOnSigintAndSigterm) {
    const struct {
        int sig;
        bool onStop;
        const char* node;  // after the stop
    } rows[] = {
        {SIGINT, true, "stopped"},
        {SIGINT, false, "run"},
        {SIGTERM, true, "stopped"},
        {SIGTERM, false, "run"},
    };
    for (const auto& r : rows) {
        std::string doc = policy(node, "v1.0");
        if (r.onStop)
            doc.insert(1, R"("on_stop": [ { "method": "xfs", "path": ")" + node +
                              R"(", "type": "string", "value": "stopped" } ], )");
        root.write("data/orvpolicy", doc);
        root.write("sys/node", "---");
        ASSERT_TRUE(start()) << log();
        Client c;
        ASSERT_TRUE(c.send(frame(3, "42;com.a") + frame(4, "42;com.a")));
        ASSERT_TRUE(eventually([&] { return readFile(node) == "run"; })) << log();
        const int status = orvd.stop(r.sig);
        const std::string what = std::string(strsignal(r.sig)) + (r.onStop ? " with" : " without");
        EXPECT_EQ(r.node, readFile(node)) << what;
        if (r.sig == SIGTERM && !r.onStop)
            EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << what;
        else
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == r.sig) << what << status;
    }
}
