// orvctl against a stand-in listener: what goes on the wire, replies, time-outs, exit codes.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <thread>

#include "tools/ToolRun.h"

using namespace orvtest;

namespace {

// Accepts one client, records its bytes and answers the codes it was told to answer.
class FakeOrvd {
  public:
    FakeOrvd(const std::string& path, std::map<int, std::string> replies)
        : mPath(path), mReplies(std::move(replies)) {
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
        if (mThread.joinable()) mThread.join();
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
        if (fd < 0) return;
        std::string pending;
        char buf[512];
        ssize_t n;
        while ((n = read(fd, buf, sizeof(buf))) > 0) {
            mBytes.append(buf, n);
            pending.append(buf, n);
            size_t close_ = pending.find(']');
            while (pending.size() > 1 && close_ != std::string::npos) {
                int code = atoi(pending.c_str() + 1);
                size_t len = atoi(pending.c_str() + pending.find(',') + 1);
                if (pending.size() < close_ + 1 + len) break;
                pending.erase(0, close_ + 1 + len);
                auto it = mReplies.find(code);
                if (it != mReplies.end()) {
                    std::string reply = std::to_string(code) + " " + it->second;
                    send(fd, reply.c_str(), reply.size() + 1, MSG_NOSIGNAL);
                }
                close_ = pending.find(']');
            }
        }
        close(fd);
    }

    std::string mPath;
    std::map<int, std::string> mReplies;
    int mListen = -1;
    std::thread mThread;
    std::string mBytes;
};

struct WireCase {
    const char* args;
    const char* frame;
};

}  // namespace

TEST(OrvCtl, EventsBecomeTheirFrames) {
    const WireCase cases[] = {
        {"launch com.a", "[3,8]-1;com.a"},
        {"start 12 com.a", "[3,8]12;com.a"},
        {"displayed 12 com.a", "[4,8]12;com.a"},
        {"transit 12 com.a 13 com.b", "[5,17]12;com.a;13;com.b"},
        {"proc-start 12 com.a", "[1,8]12;com.a"},
        {"proc-die 12 com.a", "[2,8]12;com.a"},
        {"gl-attach 12 15", "[41,5]12;15"},
        {"gl-detach 12 15", "[42,5]12;15"},
        {"list idle 12", "[33,4]12;0"},
        {"list fling 12", "[33,4]12;2"},
        {"gesture down 12", "[34,4]12;0"},
        {"gesture long-press 12", "[34,4]12;5"},
        {"scale continue 12", "[35,4]12;1"},
        {"rotate start", "[21,0]"},
        {"rotate anim-start", "[22,0]"},
        {"rotate anim-end", "[23,0]"},
        {"sleep", "[302,0]"},
        {"wake", "[303,0]"},
        {"timeout", "[500,0]"},
        {"update /data/new", "[301,9]/data/new"},
        {"send 33 '1;1'", "[33,3]1;1"},
    };
    TempRoot root;
    for (const auto& c : cases) {
        std::string sock = root / "orvd.sock";
        unlink(sock.c_str());
        FakeOrvd fake(sock, {});
        ToolResult r = runTool(root, "orvctl", "--socket " + sock + " " + c.args);
        EXPECT_EQ(r.status, 0) << c.args << ": " << r.err;
        EXPECT_EQ(fake.received(), c.frame) << c.args;
        EXPECT_EQ(r.out, "") << c.args;
    }
}

TEST(OrvCtl, QueriesPrintTheAnswer) {
    struct {
        const char* args;
        const char* frame;
        int code;
        const char* reply;
        const char* out;
    } cases[] = {
        {"event-mask com.a", "[400,7]0;com.a", 400, "5", "5\n"},
        {"event-mask --pid 12", "[400,4]1;12", 400, "3", "3\n"},
        {"large-heap 12", "[101,2]12", 101, "true", "true\n"},
        {"heap-utilization 12", "[102,2]12", 102, "0.75", "0.75\n"},
        {"hw-accel 12", "[103,2]12", 103, "-1", "-1\n"},
        {"thermal-mask com.a", "[104,5]com.a", 104, "6", "6\n"},
        {"send 7", "[7,0]", 7, "-1", "7 -1\n"},
        {"dump", "[900,0]", 900, "[version]: v1.0\nline\n", "[version]: v1.0\nline\n"},
    };
    TempRoot root;
    for (const auto& c : cases) {
        std::string sock = root / "orvd.sock";
        unlink(sock.c_str());
        FakeOrvd fake(sock, {{c.code, c.reply}});
        ToolResult r = runTool(root, "orvctl", "--socket " + sock + " " + c.args);
        EXPECT_EQ(r.status, 0) << c.args << ": " << r.err;
        EXPECT_EQ(r.out, c.out) << c.args;
        EXPECT_EQ(fake.received(), c.frame) << c.args;
    }
}

TEST(OrvCtl, MissingReplyTimesOutWithStatus3) {
    TempRoot root;
    std::string sock = root / "orvd.sock";
    FakeOrvd fake(sock, {});
    ToolResult r = runTool(root, "orvctl", "--timeout 100 --socket " + sock + " send 400 '9;x'");
    EXPECT_EQ(r.status, 3);
    EXPECT_NE(r.err.find("no reply from orvd within 100 ms"), std::string::npos) << r.err;
}

TEST(OrvCtl, UnreachableDaemonGivesStatus2) {
    TempRoot root;
    ToolResult viaName = runTool(root, "orvctl", "dump");
    EXPECT_EQ(viaName.status, 2);
    EXPECT_NE(viaName.err.find("is orvd running?"), std::string::npos) << viaName.err;
    ToolResult viaPath = runTool(root, "orvctl", "--socket " + (root / "none") + " wake");
    EXPECT_EQ(viaPath.status, 2);
}

TEST(OrvCtl, UsageErrorsGiveStatus1) {
    const char* cases[] = {
        "",          "bogus",           "gesture tapx 1",   "start abc com.a",
        "list idle", "sleep 5",         "--timeout x dump", "--frob dump",
        "send 0",    "transit 1 a b c",
    };
    TempRoot root;
    for (const char* args : cases) {
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
    EXPECT_EQ(runTool(root, "orvctl", "setprop vendor.orv.x hello").status, 0);
    EXPECT_EQ(readFile(root / "dev/__properties__/vendor.orv.x"), "hello");
    ToolResult get = runTool(root, "orvctl", "getprop vendor.orv.x");
    EXPECT_EQ(get.status, 0);
    EXPECT_EQ(get.out, "hello\n");
    EXPECT_EQ(runTool(root, "orvctl", "getprop vendor.orv.unset").out, "\n");
    EXPECT_EQ(runTool(root, "orvctl", "setprop a..b 1").status, 4);
}

TEST(OrvCtl, ReplaySendsInOrderOnOneConnection) {
    TempRoot root;
    std::string trace = root.write("t.trace",
                                   "# comment\n"
                                   "\n"
                                   "launch com.a   # trailing comment\n"
                                   "sleep 10\n"
                                   "event-mask com.a\n"
                                   "sleep\n");
    std::string sock = root / "orvd.sock";
    FakeOrvd fake(sock, {{400, "5"}});
    ToolResult r = runTool(root, "orvctl", "--socket " + sock + " replay " + trace);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(fake.received(), "[3,8]-1;com.a[400,7]0;com.a[302,0]");
    EXPECT_EQ(r.out, "event-mask com.a => 5\n");
}

TEST(OrvCtl, ReplayRejectsBadLinesBeforeSendingAnything) {
    TempRoot root;
    std::string trace = root.write("t.trace", "launch com.a\n\ngesture wiggle 1\nsleep x\n");
    // Nothing listens there: a connection attempt would end with status 2 instead.
    ToolResult r = runTool(root, "orvctl", "--socket " + (root / "none") + " replay " + trace);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(trace + ":3: usage: gesture"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find(trace + ":4: sleep MS"), std::string::npos) << r.err;
    EXPECT_EQ(runTool(root, "orvctl", "replay " + (root / "missing.trace")).status, 4);
}
