// The real bin/orvd in a temporary root, spoken to over its control socket.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <thread>

#include "OrvDaemonTestUtil.h"

namespace {

using Clock = std::chrono::steady_clock;

// The daemon is another process: its socket and files can only be polled.
bool pollUntil(const std::function<bool()>& done, int timeoutMs = 10000) {
    auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (Clock::now() < end) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return done();
}

std::string frame(int code, const std::string& payload) {
    return "[" + std::to_string(code) + "," + std::to_string(payload.size()) + "]" + payload;
}

class Client {
  public:
    explicit Client(const std::string& path) {
        mFd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
        if (connect(mFd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
            close(mFd);
            mFd = -1;
        }
    }
    ~Client() {
        if (mFd >= 0) close(mFd);
    }
    bool ok() const { return mFd >= 0; }
    bool send(const std::string& bytes) {
        return ::send(mFd, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    // One reply: everything up to and without its NUL; "" on time-out.
    std::string reply(int timeoutMs = 5000) {
        std::string out;
        char c;
        pollfd p{mFd, POLLIN, 0};
        while (poll(&p, 1, timeoutMs) > 0 && read(mFd, &c, 1) == 1) {
            if (c == '\0') return out;
            out += c;
        }
        return "";
    }
    std::string ask(int code, const std::string& payload) {
        return send(frame(code, payload)) ? reply() : "";
    }

  private:
    int mFd;
};

class Daemon {
  public:
    explicit Daemon(orvtest::TempRoot& root) : mRoot(root) {}
    ~Daemon() {
        if (mPid > 0) {
            kill(mPid, SIGKILL);
            waitpid(mPid, nullptr, 0);
        }
    }

    void start() {
        std::string err = mRoot / "orvd.err";
        mPid = fork();
        if (mPid == 0) {
            int fd = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(fd, 2);
            execl(ORV_BIN_DIR "/orvd", "orvd", static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    bool waitReady() {
        return pollUntil([&] { return Client(socketPath()).ok(); });
    }
    std::string socketPath() const { return mRoot / "dev/socket/orvd"; }
    std::string log() const { return orvtest::readFile(mRoot / "orvd.err"); }
    bool waitLog(const std::string& part) {
        return pollUntil([&] { return log().find(part) != std::string::npos; });
    }
    bool alive() { return mPid > 0 && waitpid(mPid, nullptr, WNOHANG) == 0; }
    int interrupt() {
        int status = -1;
        kill(mPid, SIGINT);
        waitpid(mPid, &status, 0);
        mPid = -1;
        return status;
    }
    std::string property(const std::string& name) const {
        return orvtest::readFile(mRoot / ("dev/__properties__/" + name));
    }

  private:
    orvtest::TempRoot& mRoot;
    pid_t mPid = -1;
};

std::string policy(const std::string& node, const std::string& version) {
    return R"({ "parser": "v1.0", "version": ")" + version + R"(",
  "default": { "action": { "reset": { "policy": [] } } },
  "applications": {
    "com.a": {
      "param": { "event_mask": "101", "gesture_tap_timeout": "400" },
      "action": {
        "run": { "on_enter": [ { "method": "xfs", "path": ")" +
           node +
           R"(", "type": "string", "value": "run" } ] },
        "gesture_tap": { "on_enter": [ { "method": "xfs", "path": ")" +
           node +
           R"(", "type": "string", "value": "tap" },
                                      { "method": "prop", "path": "orv.test.tap",
                                        "type": "string", "value": "yes" } ] } } },
    "com.b": { "param": { "event_mask": "11" } } } })";
}

class DaemonTest : public ::testing::Test {
  protected:
    void SetUp() override {
        mNode = mRoot.write("sys/node", "---");
        mRoot.write("data/orvpolicy", policy(mNode, "v1.0"));
    }
    void startWithDebug() {
        mRoot.write("dev/__properties__/sys.orv.debug.daemon", "1");
        mDaemon.start();
        ASSERT_TRUE(mDaemon.waitReady()) << mDaemon.log();
    }
    std::string stateOf(Client& c) {
        std::string dump = c.ask(900, "");
        auto at = dump.find("   State     : ");
        return at == std::string::npos ? "" : dump.substr(at + 15, dump.find('\n', at) - at - 15);
    }

    orvtest::TempRoot mRoot;
    Daemon mDaemon{mRoot};
    std::string mNode;
};

TEST_F(DaemonTest, PublishesEnableAndAnswersQueriesAndDump) {
    mDaemon.start();
    ASSERT_TRUE(mDaemon.waitReady()) << mDaemon.log();
    EXPECT_EQ("true", mDaemon.property("sys.orv.enable"));
    Client c(mDaemon.socketPath());
    EXPECT_EQ("400 5", c.ask(400, "0;com.a"));
    EXPECT_EQ("400 3", c.ask(400, "0;com.b"));
    EXPECT_EQ("7 -1", c.ask(7, "x"));
    std::string dump = c.ask(900, "");
    EXPECT_EQ(0u, dump.find("900 [version]: v1.0\n[Context]:\n   App       : \n"
                            "   State     : reset\n   PID       : -1\n"))
        << dump;
    EXPECT_LT(dump.find("   IsScreenOn: true\n"), dump.find("[ActionManager]\n")) << dump;
}

TEST_F(DaemonTest, PolicyRunsAndGestureTimesOutBackToRun) {
    startWithDebug();
    Client c(mDaemon.socketPath());
    ASSERT_TRUE(c.send(frame(1, "100;com.a") + frame(3, "100;com.a;act;x") + frame(4, "100;com.a")));
    EXPECT_TRUE(pollUntil([&] { return orvtest::readFile(mNode) == "run"; }))
        << orvtest::readFile(mNode);

    ASSERT_TRUE(c.send(frame(34, "100;2")));
    EXPECT_EQ("gesture_tap", stateOf(c));
    EXPECT_TRUE(pollUntil([&] { return mDaemon.property("orv.test.tap") == "yes"; }));
    // The timer's own frame comes back over the socket and ends the gesture.
    EXPECT_TRUE(pollUntil([&] { return stateOf(c) == "run"; })) << mDaemon.log();
    EXPECT_TRUE(pollUntil([&] { return orvtest::readFile(mNode) == "run"; }));
    EXPECT_TRUE(mDaemon.waitLog("TimeoutMsg sent"));
    EXPECT_TRUE(mDaemon.waitLog("D OrvMsgHandler: TIMEOUT(500)"));
}

TEST_F(DaemonTest, ConfigurationUpdateTakesEffectAtTheNextAppSwitch) {
    startWithDebug();
    std::string next = mRoot.write("incoming.json", policy(mNode, "v2.0"));
    Client c(mDaemon.socketPath());
    ASSERT_TRUE(c.send(frame(301, next)));
    ASSERT_TRUE(mDaemon.waitLog("new DB " + next + " is prepared to update)")) << mDaemon.log();
    ASSERT_TRUE(c.send(frame(3, "5;com.b;a;b")));
    EXPECT_TRUE(mDaemon.waitLog("I OrvActionManager: DB updated"));
    EXPECT_TRUE(pollUntil([&] { return c.ask(900, "").find("v2.0") != std::string::npos; }));
    EXPECT_NE(std::string::npos, orvtest::readFile(mRoot / "data/orvpolicy").find("v2.0"));
}

TEST_F(DaemonTest, SigintExitsWithStatusTwo) {
    mDaemon.start();
    ASSERT_TRUE(mDaemon.waitReady());
    int status = mDaemon.interrupt();
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(2, WEXITSTATUS(status));
    EXPECT_NE(std::string::npos, mDaemon.log().find("I OrvMain : caught signal 2"));
}

TEST_F(DaemonTest, ParksWithoutAPolicy) {
    unlink((mRoot / "data/orvpolicy").c_str());
    mDaemon.start();
    ASSERT_TRUE(mDaemon.waitLog("I OrvMain : disabled")) << mDaemon.log();
    EXPECT_EQ("false", mDaemon.property("sys.orv.enable"));
    EXPECT_TRUE(mDaemon.alive());
    EXPECT_FALSE(Client(mDaemon.socketPath()).ok());
    EXPECT_EQ(std::string::npos, mDaemon.log().find("OrvOrvello: initiated"));
}

TEST_F(DaemonTest, MessageLongerThanOneReadIsJoined) {
    mDaemon.start();
    ASSERT_TRUE(mDaemon.waitReady());
    Client c(mDaemon.socketPath());
    std::string payload(700, 'p');
    EXPECT_EQ("7 -1", c.ask(7, payload));
    EXPECT_NE(std::string::npos,
              mDaemon.log().find("W OrvListener: buffer may be too small. message may be cut "
                                 "this time."));
    EXPECT_NE(std::string::npos, mDaemon.log().find("undefined code(7)|" + payload));
}

TEST_F(DaemonTest, ManyClientsAtOnce) {
    mDaemon.start();
    ASSERT_TRUE(mDaemon.waitReady());
    const int kClients = 16, kQueries = 25;
    std::vector<int> good(kClients, 0);
    std::vector<std::thread> threads;
    for (int i = 0; i < kClients; ++i) {
        threads.emplace_back([&, i] {
            Client c(mDaemon.socketPath());
            for (int q = 0; q < kQueries; ++q) {
                bool a = (q + i) % 2 == 0;
                good[i] += c.ask(400, a ? "0;com.a" : "0;com.b") == (a ? "400 5" : "400 3");
            }
        });
    }
    for (auto& t : threads) t.join();
    for (int i = 0; i < kClients; ++i) EXPECT_EQ(kQueries, good[i]) << "client " << i;
}

TEST_F(DaemonTest, ClientsThatVanishBeforeTheirReply) {
    mDaemon.start();
    ASSERT_TRUE(mDaemon.waitReady());
    for (int i = 0; i < 100; ++i) {
        Client c(mDaemon.socketPath());
        ASSERT_TRUE(c.ok());
        if (i % 4 != 0) c.send(frame(900, "") + frame(400, "0;com.a"));  // else: silent
    }
    Client c(mDaemon.socketPath());
    EXPECT_EQ("400 5", c.ask(400, "0;com.a"));
    EXPECT_TRUE(mDaemon.alive());
}

// Bounded random input: the daemon must stay up and keep accepting, whatever the framing
// makes of it (a stalled header may keep it from dispatching anything ever again).
TEST_F(DaemonTest, RandomBytesSoak) {
    startWithDebug();
    std::mt19937 rng(12345);
    const std::string alphabet = "[],;-0123456789abc\n";
    for (int i = 0; i < 300; ++i) {
        Client c(mDaemon.socketPath());
        ASSERT_TRUE(c.ok()) << "connection " << i;
        std::string bytes(1 + rng() % 900, '\0');
        for (auto& b : bytes) {
            b = rng() % 4 == 0 ? static_cast<char>(rng()) : alphabet[rng() % alphabet.size()];
        }
        c.send(bytes);
    }
    // Every hang-up is seen (one "msg(0):" line each, the readiness probe included) only after
    // everything the client sent has been consumed.
    auto closed = [&] {
        std::string log = mDaemon.log();
        int n = 0;
        for (size_t at = 0; (at = log.find(") msg(0):", at)) != std::string::npos; ++at) ++n;
        return n;
    };
    EXPECT_TRUE(pollUntil([&] { return closed() >= 301; }, 30000)) << closed();
    EXPECT_TRUE(mDaemon.alive());
    EXPECT_TRUE(Client(mDaemon.socketPath()).ok());
}

}  // namespace
