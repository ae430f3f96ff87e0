#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sysutils/SocketClient.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "support/OrvTestSupport.h"

namespace {

class SocketPair : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, mFds)); }
    void TearDown() override { close(mFds[1]); }  // -1 once a test closed it
    std::string readBytes(size_t n) {
        std::string out(n, '\0');
        size_t got = 0;
        for (ssize_t r; got < n && (r = read(mFds[1], &out[got], n - got)) > 0;) got += size_t(r);
        return out.substr(0, got);
    }
    int mFds[2] = {-1, -1};
};

TEST_F(SocketPair, SendMsgWireBytes) {
    using S = std::string;
    // Code, text, with errno, with the command number, command number, errno, bytes sent.
    const std::tuple<int, const char*, bool, bool, int, int, S> cases[] = {
        {200, "ok", false, false, 0, 0, S("200 ok\0", 7)},
        {-1, "", false, false, 0, 0, S("-1 \0", 4)},
        {500, "failed", true, false, 0, ENOENT, S("500 failed (No such file or directory)\0", 39)},
        {200, "done", false, true, 17, 0, S("200 17 done\0", 12)},
        {400, "bad", true, true, 3, EACCES, S("400 3 bad (Permission denied)\0", 30)},
        {0, "multi\nline", false, false, 0, 0, S("0 multi\nline\0", 13)},
    };
    SocketClient client(mFds[0], true);
    for (const auto& [code, msg, addErrno, useCmdNum, cmdNum, err, wire] : cases) {
        client.setCmdNum(cmdNum);
        errno = err;
        ASSERT_EQ(0, client.sendMsg(code, msg, addErrno, useCmdNum));
        EXPECT_EQ(wire, readBytes(wire.size())) << msg;
    }
}

// Messages larger than the socket buffer go out whole, and concurrent writers never interleave.
TEST_F(SocketPair, LargeConcurrentMessagesStayWhole) {
    constexpr int kThreads = 4, kMessages = 40;
    const size_t kSize = 64 * 1024, kWire = kSize + 3;  // "7 " + body + NUL
    SocketClient client(mFds[0], true);
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t)
        writers.emplace_back([&, t] {
            std::string body(kSize, char('a' + t));
            for (int i = 0; i < kMessages; ++i)
                EXPECT_EQ(0, client.sendMsg(7, body.c_str(), false));
        });
    std::string all = readBytes(kWire * kThreads * kMessages);
    for (auto& w : writers) w.join();
    ASSERT_EQ(kWire * kThreads * kMessages, all.size());
    std::vector<int> perWriter(kThreads, 0);
    for (size_t off = 0; off < all.size(); off += kWire) {
        char letter = all[off + 2];
        ASSERT_TRUE(letter >= 'a' && letter < 'a' + kThreads) << off;
        ASSERT_EQ("7 " + std::string(kSize, letter) + '\0', all.substr(off, kWire)) << off;
        ++perWriter[letter - 'a'];
    }
    EXPECT_EQ(std::vector<int>(kThreads, kMessages), perWriter);
}

// SIGPIPE stays at its default here: if the send raised it, the test process would die.
TEST_F(SocketPair, ClosedPeerFailsWithoutSigpipe) {
    signal(SIGPIPE, SIG_DFL);
    SocketClient client(mFds[0], true);
    close(mFds[1]);
    mFds[1] = -1;
    EXPECT_EQ(-1, client.sendMsg(200, "anyone?", false));
    EXPECT_EQ(-1, client.sendMsg(std::string(3000, 'x').c_str()));
}

// A send blocks until all is written: a non-blocking socket that is full, or a send time-out
// that passes, fails the reply with a warning instead of queueing or waiting on.
TEST_F(SocketPair, FullSocketFailsTheSendWithAWarning) {
    const std::string big(1 << 20, 'x');
    const struct {
        const char* what;
        bool nonBlocking;
        int timeoutMs;
    } rows[] = {
        {"non-blocking", true, 0},
        {"send time-out", false, 200},
    };
    for (const auto& r : rows) {
        int fds[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
        if (r.nonBlocking) fcntl(fds[0], F_SETFL, O_NONBLOCK);
        timeval tv = {0, r.timeoutMs * 1000};
        setsockopt(fds[0], SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
        orvtest::LogCapture log;
        SocketClient client(fds[0], true);
        EXPECT_EQ(-1, client.sendMsg(big.c_str())) << r.what;
        EXPECT_TRUE(errno == EAGAIN || errno == EWOULDBLOCK) << r.what;
        auto warnings = log.texts("SocketClient");
        ASSERT_EQ(2u, warnings.size()) << r.what;
        EXPECT_EQ("write error (Resource temporarily unavailable)", warnings[0]);
        EXPECT_EQ(0u, warnings[1].find("Unable to send msg 'xxx")) << warnings[1].substr(0, 40);
        close(fds[1]);
    }
}

// The reference count starts at 1; the last decRef deletes the client and closes its socket.
TEST_F(SocketPair, LastReferenceClosesTheSocket) {
    auto* client = new SocketClient(mFds[0], true);
    client->incRef();
    EXPECT_FALSE(client->decRef());
    EXPECT_EQ(0, fcntl(mFds[0], F_GETFD) & ~FD_CLOEXEC);
    EXPECT_TRUE(client->decRef());
    EXPECT_EQ(-1, fcntl(mFds[0], F_GETFD));
    EXPECT_EQ("", readBytes(1)) << "the peer sees the end";
}

}  // namespace
