#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sysutils/SocketClient.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

namespace {

class SocketPair : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, mFds)); }
    void TearDown() override {
        if (mFds[1] >= 0) close(mFds[1]);
    }
    // Reads exactly n bytes from the peer end.
    std::string readBytes(size_t n) {
        std::string out;
        char buf[4096];
        while (out.size() < n) {
            ssize_t r = read(mFds[1], buf, std::min(sizeof(buf), n - out.size()));
            if (r <= 0) break;
            out.append(buf, static_cast<size_t>(r));
        }
        return out;
    }
    int mFds[2] = {-1, -1};
};

TEST_F(SocketPair, SendMsgWireBytes) {
    struct Case {
        int code;
        const char* msg;
        bool addErrno;
        bool useCmdNum;
        int cmdNum;
        int err;
        std::string wire;
    } cases[] = {
        {200, "ok", false, false, 0, 0, std::string("200 ok\0", 7)},
        {-1, "", false, false, 0, 0, std::string("-1 \0", 4)},
        {500, "failed", true, false, 0, ENOENT,
         std::string("500 failed (No such file or directory)\0", 39)},
        {200, "done", false, true, 17, 0, std::string("200 17 done\0", 12)},
        {400, "bad", true, true, 3, EACCES, std::string("400 3 bad (Permission denied)\0", 30)},
        {0, "multi\nline", false, false, 0, 0, std::string("0 multi\nline\0", 13)},
    };
    SocketClient client(mFds[0], true);
    for (const auto& c : cases) {
        client.setCmdNum(c.cmdNum);
        errno = c.err;
        ASSERT_EQ(0, client.sendMsg(c.code, c.msg, c.addErrno, c.useCmdNum));
        EXPECT_EQ(c.wire, readBytes(c.wire.size())) << c.msg;
    }
    ASSERT_EQ(0, client.sendMsg("raw text"));
    EXPECT_EQ(std::string("raw text\0", 9), readBytes(9));
}

TEST_F(SocketPair, ThreeArgumentFormFollowsConstructor) {
    SocketClient plain(mFds[0], false);
    plain.setCmdNum(9);
    ASSERT_EQ(0, plain.sendMsg(200, "a", false));
    EXPECT_EQ(std::string("200 a\0", 6), readBytes(6));

    SocketClient numbered(mFds[0], true, true);
    numbered.setCmdNum(9);
    ASSERT_EQ(0, numbered.sendMsg(200, "a", false));
    EXPECT_EQ(std::string("200 9 a\0", 8), readBytes(8));
}

// Messages larger than the socket buffer go out whole, and concurrent writers never interleave.
TEST_F(SocketPair, LargeConcurrentMessagesStayWhole) {
    constexpr int kThreads = 4, kMessages = 40;
    const size_t kSize = 64 * 1024;
    SocketClient client(mFds[0], true);
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t) {
        writers.emplace_back([&, t] {
            std::string body(kSize, static_cast<char>('a' + t));
            for (int i = 0; i < kMessages; ++i)
                EXPECT_EQ(0, client.sendMsg(7, body.c_str(), false));
        });
    }
    const size_t wireSize = kSize + 3;  // "7 " + body + NUL
    std::string all = readBytes(wireSize * kThreads * kMessages);
    for (auto& w : writers) w.join();
    ASSERT_EQ(wireSize * kThreads * kMessages, all.size());
    std::vector<int> perWriter(kThreads, 0);
    for (size_t off = 0; off < all.size(); off += wireSize) {
        ASSERT_EQ("7 ", all.substr(off, 2));
        char letter = all[off + 2];
        ASSERT_GE(letter, 'a');
        ASSERT_LT(letter, 'a' + kThreads);
        ASSERT_GE(all.find_first_not_of(letter, off + 2), off + 2 + kSize)
            << "message torn at " << off;
        ASSERT_EQ('\0', all[off + wireSize - 1]);
        ++perWriter[letter - 'a'];
    }
    for (int n : perWriter) EXPECT_EQ(kMessages, n);
}

// SIGPIPE stays at its default here: if the send raised it, the test process would die.
TEST_F(SocketPair, ClosedPeerFailsWithoutSigpipe) {
    signal(SIGPIPE, SIG_DFL);
    SocketClient client(mFds[0], true);
    close(mFds[1]);
    mFds[1] = -1;
    EXPECT_EQ(-1, client.sendMsg(200, "anyone?", false));
    EXPECT_EQ(-1, client.sendMsg(std::string(300000, 'x').c_str()));
}

}  // namespace
