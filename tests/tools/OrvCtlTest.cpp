// orvctl against a stand-in listener: what goes on the wire, replies, time-outs, exit codes.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <map>
#include <thread>

#include "support/ToolRun.h"

using namespace orvtest;

namespace {

// Accepts one client, records its bytes and answers the codes it was told to answer.
class FakeOrvd {
  public:
    FakeOrvd(const std::string& path, std::map<int, std::string> replies)
        : mReplies(std::move(replies)) {
        unlink(path.c_str());
        mListen = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
        bind(mListen, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
        listen(mListen, 4);
        mThread = std::thread([this] { serve(); });
    }
    ~FakeOrvd() {
        shutdown(mListen, SHUT_RDWR);
        received();
        close(mListen);
    }
    // Everything the client sent, once it has hung up.
    std::string received() {
        if (mThread.joinable()) mThread.join();
        return mBytes;
    }

  private:
    void serve() {
        int fd = accept(mListen, nullptr, nullptr);
        std::string pending;
        char buf[512];
        for (ssize_t n; fd >= 0 && (n = read(fd, buf, sizeof(buf))) > 0;) {
            mBytes.append(buf, size_t(n));
            pending.append(buf, size_t(n));
            for (size_t end; (end = pending.find(']')) != std::string::npos;) {
                size_t len = size_t(atoi(pending.c_str() + pending.find(',') + 1));
                if (pending.size() < end + 1 + len) break;
                auto it = mReplies.find(atoi(pending.c_str() + 1));
                pending.erase(0, end + 1 + len);
                if (it == mReplies.end()) continue;
                std::string reply = std::to_string(it->first) + " " + it->second;
                send(fd, reply.c_str(), reply.size() + 1, MSG_NOSIGNAL);
            }
        }
        if (fd >= 0) close(fd);
    }

    std::map<int, std::string> mReplies;
    int mListen = -1;
    std::thread mThread;
    std::string mBytes;
};

}  // namespace

TEST(OrvCtl, CommandsBecomeTheirFramesAndPrintTheAnswer) {
    const struct {
        const char* args;
        const char* frame;
        const char* reply;  // nullptr: the fake stays silent
        const char* out;
    } cases[] = {
        {"launch com.a", "[3,8]-1;com.a", nullptr, ""},
        {"start 12 com.a", "[3,8]12;com.a", nullptr, ""},
        {"displayed 12 com.a", "[4,8]12;com.a", nullptr, ""},
        {"transit 12 com.a 13 com.b", "[5,17]12;com.a;13;com.b", nullptr, ""},
        {"proc-start 12 com.a", "[1,8]12;com.a", nullptr, ""},
        {"proc-die 12 com.a", "[2,8]12;com.a", nullptr, ""},
        {"gl-attach 12 15", "[41,5]12;15", nullptr, ""},
        {"gl-detach 12 15", "[42,5]12;15", nullptr, ""},
        {"list fling 12", "[33,4]12;2", nullptr, ""},
        {"gesture long-press 12", "[34,4]12;5", nullptr, ""},
        {"scale continue 12", "[35,4]12;1", nullptr, ""},
        {"rotate start", "[21,0]", nullptr, ""},
        {"rotate anim-end", "[23,0]", nullptr, ""},
        {"sleep", "[302,0]", nullptr, ""},
        {"wake", "[303,0]", nullptr, ""},
        {"timeout", "[500,0]", nullptr, ""},
        {"send 301 /data/new", "[301,9]/data/new", nullptr, ""},
        {"send 33 '1;1'", "[33,3]1;1", nullptr, ""},
        {"send 400 '9;x'", "[400,3]9;x", nullptr, ""},  // orvd never answers an unknown query type
        {"event-mask com.a", "[400,7]0;com.a", "5", "5\n"},
        {"event-mask --pid 12", "[400,4]1;12", "3", "3\n"},
        {"large-heap 12", "[101,2]12", "true", "true\n"},
        {"heap-utilization 12", "[102,2]12", "0.75", "0.75\n"},
        {"hw-accel 12", "[103,2]12", "-1", "-1\n"},
        {"thermal-mask com.a", "[104,5]com.a", "6", "6\n"},
        {"send 7", "[7,0]", "-1", "7 -1\n"},
        {"dump", "[900,0]", "[version]: v1.0\nline\n", "[version]: v1.0\nline\n"},
    };
    TempRoot root;
    const std::string sock = root / "orvd.sock";
    for (const auto& c : cases) {
        std::map<int, std::string> replies;
        if (c.reply) replies[atoi(c.frame + 1)] = c.reply;
        FakeOrvd fake(sock, replies);
        ToolResult r = runTool(root, "orvctl", "--timeout 1000 --socket " + sock + " " + c.args);
        EXPECT_EQ(r.status, 0) << c.args << ": " << r.err;
        EXPECT_EQ(fake.received(), c.frame) << c.args;
        EXPECT_EQ(r.out, c.out) << c.args;
    }
}

TEST(OrvCtl, ExitStatusOfFailures) {
    TempRoot root;
    const std::string sock = root / "orvd.sock";
    FakeOrvd silent(sock, {});
    ToolResult late = runTool(root, "orvctl", "--timeout 100 --socket " + sock + " send 7");
    EXPECT_EQ(late.status, 3);
    EXPECT_NE(late.err.find("no reply from orvd within 100 ms"), std::string::npos) << late.err;

    ToolResult viaName = runTool(root, "orvctl", "dump");
    EXPECT_EQ(viaName.status, 2);
    EXPECT_NE(viaName.err.find("is orvd running?"), std::string::npos) << viaName.err;
    EXPECT_EQ(runTool(root, "orvctl", "--socket " + (root / "none") + " wake").status, 2);

    for (const char* args :
         {"", "bogus", "gesture tapx 1", "start abc com.a", "list idle", "sleep 5",
          "--timeout x dump", "--frob dump", "send 0", "transit 1 a b c", "event-mask --pid x"}) {
        ToolResult r = runTool(root, "orvctl", args);
        EXPECT_EQ(r.status, 1) << args;
        EXPECT_FALSE(r.err.empty()) << args;
    }
    ToolResult help = runTool(root, "orvctl", "--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("Exit status"), std::string::npos);
}

TEST(OrvCtl, PropertiesReadAndWriteTheStore) {
    TempRoot root;
    EXPECT_EQ(runTool(root, "orvctl", "setprop sys.orv.tune.x hello").status, 0);
    EXPECT_EQ(readFile(root / "dev/__properties__/sys.orv.tune.x"), "hello");
    ToolResult get = runTool(root, "orvctl", "getprop sys.orv.tune.x");
    EXPECT_EQ(get.status, 0);
    EXPECT_EQ(get.out, "hello\n");
    EXPECT_EQ(runTool(root, "orvctl", "getprop sys.orv.tune.unset").out, "\n");
    EXPECT_EQ(runTool(root, "orvctl", "setprop a..b 1").status, 4);
}

TEST(OrvCtl, ReplayChecksEveryLineThenSendsInOrderOnOneConnection) {
    TempRoot root;
    std::string trace = root.write("t.trace",
                                   "# comment\n\nlaunch com.a   # trailing comment\nsleep 10\n"
                                   "event-mask \"com.a\"\nsleep\n");
    std::string sock = root / "orvd.sock";
    FakeOrvd fake(sock, {{400, "5"}});
    ToolResult r = runTool(root, "orvctl", "--socket " + sock + " replay " + trace);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(fake.received(), "[3,8]-1;com.a[400,7]0;com.a[302,0]");
    EXPECT_EQ(r.out, "event-mask com.a => 5\n");

    // Nothing listens at "none": a connection attempt would end with status 2 instead.
    trace = root.write("bad.trace", "launch com.a\n\ngesture wiggle 1\nsleep x\nreplay t\n");
    r = runTool(root, "orvctl", "--socket " + (root / "none") + " replay " + trace);
    EXPECT_EQ(r.status, 1);
    for (const char* line : {":3: usage: gesture", ":4: sleep MS", ":5: replay cannot be nested"})
        EXPECT_NE(r.err.find(trace + line), std::string::npos) << r.err;
    EXPECT_EQ(runTool(root, "orvctl", "replay " + (root / "missing.trace")).status, 4);
}
