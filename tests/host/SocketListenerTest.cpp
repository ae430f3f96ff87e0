#include <android/log.h>
#include <cutils/sockets.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stddef.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sysutils/SocketListener.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "support/OrvTestSupport.h"

namespace {

// Replies "200 <data>" to every read; "bye" or end of stream asks the platform to drop the client.
struct EchoListener : SocketListener {
    using SocketListener::SocketListener;
    ~EchoListener() override { stopListener(); }

    // Data of each read in order, "" for end of stream.
    std::vector<std::string> waitEvents(size_t n) {
        std::unique_lock<std::mutex> lock(mLock);
        EXPECT_TRUE(
            mCond.wait_for(lock, std::chrono::seconds(5), [&] { return mEvents.size() >= n; }));
        return mEvents;
    }
    bool onDataAvailable(SocketClient* c) override {
        char buf[256];
        ssize_t n = read(c->getSocket(), buf, sizeof(buf));
        std::string data(buf, size_t(n > 0 ? n : 0));
        bool keep = n > 0 && data != "bye";
        // Recorded before the reply, so a client that got its reply finds its event.
        std::lock_guard<std::mutex> lock(mLock);
        mEvents.push_back(data);
        mCond.notify_all();
        if (keep) c->sendMsg(200, data.c_str(), false);
        return keep;
    }
    std::mutex mLock;
    std::condition_variable mCond;
    std::vector<std::string> mEvents;
};

int connectOrvd() {
    return socket_local_client("orvd", ANDROID_SOCKET_NAMESPACE_RESERVED, SOCK_STREAM);
}

// Sends `text` (if any) and returns the reply up to its NUL ("" when the connection ends first).
std::string roundTrip(int fd, const std::string& text) {
    if (!text.empty() && write(fd, text.data(), text.size()) != ssize_t(text.size())) return "";
    std::string reply;
    for (char c; read(fd, &c, 1) == 1; reply += c)
        if (c == '\0') return reply;
    return "";
}

// A unix socket bound at the path `name` (or the abstract `name`), listening if `backlog` > 0.
int bindAt(const std::string& name, bool abstract = false, int backlog = 0) {
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path + abstract, name.data(), name.size());
    socklen_t len = socklen_t(offsetof(sockaddr_un, sun_path) + abstract + name.size());
    int fd = socket(AF_UNIX, SOCK_STREAM | (backlog ? SOCK_NONBLOCK : 0), 0);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), len) == 0 &&
        (!backlog || listen(fd, backlog) == 0))
        return fd;
    close(fd);
    return -1;
}

TEST(Listener, SocketMode0660WhateverTheUmaskAndStop) {
    orvtest::TempRoot root;
    ASSERT_EQ(0, rmdir((root / "dev").c_str()));
    EchoListener listener("orvd", true);
    for (mode_t mask : {mode_t(0), mode_t(077)}) {
        mode_t old = umask(mask);
        int rc = listener.startListener();
        umask(old);
        ASSERT_EQ(0, rc);
        struct stat st;
        ASSERT_EQ(0, lstat((root / "dev/socket/orvd").c_str(), &st));
        EXPECT_EQ(S_IFSOCK | 0660u, st.st_mode & (S_IFMT | 07777)) << "umask " << std::oct << mask;
        int fd = connectOrvd();
        EXPECT_EQ("200 ping", roundTrip(fd, "ping"));
        EXPECT_EQ(0, listener.stopListener());
        EXPECT_EQ("", roundTrip(fd, "")) << "stop closes the clients";
        close(fd);
        EXPECT_EQ(-1, connectOrvd());
        EXPECT_EQ(-1, listener.stopListener());
    }
}

TEST(Listener, DropsOnlyTheClientThatSaysFalse) {
    orvtest::TempRoot root;
    EchoListener listener("orvd", true);
    ASSERT_EQ(0, listener.startListener());
    int quiet = connectOrvd();
    ASSERT_GE(quiet, 0);
    close(quiet);  // a hang-up is delivered once, then the client is forgotten
    listener.waitEvents(1);
    int a = connectOrvd(), b = connectOrvd(), c = connectOrvd();
    EXPECT_EQ("200 a1", roundTrip(a, "a1"));
    EXPECT_EQ("200 b1", roundTrip(b, "b1"));
    EXPECT_EQ("200 c1", roundTrip(c, "c1"));
    EXPECT_EQ("", roundTrip(b, "bye")) << "a false return closes the client";
    EXPECT_EQ("200 a2", roundTrip(a, "a2"));
    EXPECT_EQ("200 c2", roundTrip(c, "c2"));
    ASSERT_EQ(4, write(c, "last", 4));
    close(c);
    auto ev = listener.waitEvents(9);
    EXPECT_EQ((std::vector<std::string>{"", "a1", "b1", "c1", "bye", "a2", "c2", "last", ""}), ev);
    close(a);
    close(b);
}

TEST(Listener, AClientThatNeverReadsIsCutOffAndOthersAreStillServed) {
    orvtest::TempRoot root;
    EchoListener listener("orvd", true);
    ASSERT_EQ(0, listener.startListener());
    int greedy = connectOrvd();
    fcntl(greedy, F_SETFL, O_NONBLOCK);
    const std::string ask(200, 'q');
    // Keep asking until the listener takes nothing more: it is stuck or has cut us off.
    for (pollfd p = {greedy, POLLOUT, 0}; poll(&p, 1, 300) == 1 && !(p.revents & POLLERR);) {
        if (send(greedy, ask.data(), ask.size(), MSG_NOSIGNAL) < 0 && errno != EAGAIN) break;
    }
    int polite = connectOrvd();
    timeval tv = {5, 0};  // fail rather than hang if the listener is stuck
    setsockopt(polite, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    EXPECT_EQ("200 hi", roundTrip(polite, "hi"));
    close(polite);
    close(greedy);
}

TEST(Listener, StaleLiveAndForeignSocketFiles) {
    orvtest::TempRoot root;
    ASSERT_EQ(0, mkdir((root / "dev/socket").c_str(), 0755));
    int stale = bindAt(root / "dev/socket/orvd");
    ASSERT_GE(stale, 0);
    close(stale);  // the file stays, nobody accepts on it
    EchoListener first("orvd", true);
    ASSERT_EQ(0, first.startListener()) << "a stale socket is replaced";
    struct stat before, after;
    ASSERT_EQ(0, lstat((root / "dev/socket/orvd").c_str(), &before));
    {
        orvtest::LogCapture log;
        EchoListener second("orvd", true);
        EXPECT_EQ(-1, second.startListener()) << "a live socket is left alone";
        auto recs = log.records();
        ASSERT_EQ(1u, recs.size());
        EXPECT_EQ(std::make_tuple(ANDROID_LOG_ERROR, "SocketListener"),
                  std::make_tuple(recs[0].prio, recs[0].tag));
    }
    ASSERT_EQ(0, lstat((root / "dev/socket/orvd").c_str(), &after));
    EXPECT_EQ(before.st_ino, after.st_ino);
    int fd = connectOrvd();
    EXPECT_EQ("200 still me", roundTrip(fd, "still me"));
    close(fd);

    orvtest::TempRoot other;
    other.write("dev/socket/orvd", "not a socket");
    orvtest::LogCapture log;
    EchoListener third("orvd", true);
    EXPECT_EQ(-1, third.startListener());
    EXPECT_EQ("not a socket", orvtest::readFile(other / "dev/socket/orvd"));
    EXPECT_EQ(1u, log.records().size());
}

// As on a device, a descriptor handed over in the environment counts only when it is a socket
// bound at the reserved directory under the name asked for.
TEST(Listener, TakesOnlyTheReservedSocketHandedOverInTheEnvironment) {
    orvtest::TempRoot root;
    ASSERT_EQ(0, mkdir((root / "dev/socket").c_str(), 0755));
    int handed = bindAt(root / "dev//socket/orvd"), elsewhere = bindAt(root / "launcher.sock");
    int file = open("/dev/null", O_RDONLY), closed = dup(file);
    ASSERT_TRUE(handed >= 0 && elsewhere >= 0);
    close(closed);
    const std::string s = std::to_string(handed);
    for (std::string bad :
         {std::string(), std::to_string(file), std::to_string(closed), s + "x", " " + s, "-" + s,
          std::string("99999999999999999999"), std::to_string(elsewhere)}) {
        setenv("ANDROID_SOCKET_orvd", bad.c_str(), 1);
        EXPECT_EQ(-1, android_get_control_socket("orvd")) << '"' << bad << '"';
    }
    close(file);
    close(elsewhere);
    setenv("ANDROID_SOCKET_other", s.c_str(), 1);
    EXPECT_EQ(-1, android_get_control_socket("other")) << "bound under another name";
    unsetenv("ANDROID_SOCKET_other");
    setenv("ANDROID_SOCKET_orvd", s.c_str(), 1);
    EXPECT_EQ(handed, android_get_control_socket("orvd"));
    struct stat before, after;
    ASSERT_EQ(0, lstat((root / "dev/socket/orvd").c_str(), &before));
    EchoListener listener("orvd", true);
    ASSERT_EQ(0, listener.startListener());
    unsetenv("ANDROID_SOCKET_orvd");
    ASSERT_EQ(0, lstat((root / "dev/socket/orvd").c_str(), &after));
    EXPECT_EQ(before.st_ino, after.st_ino) << "served as it is, nothing created";
    int fd = connectOrvd();
    EXPECT_EQ("200 handed", roundTrip(fd, "handed"));
    close(fd);
}

TEST(LocalClient, NamespacesAndFailures) {
    orvtest::TempRoot root;
    ASSERT_EQ(0, mkdir((root / "dev/socket").c_str(), 0755));
    std::string fsPath = root / "plain.sock", abstractName = "orvtest-" + std::to_string(getpid());
    std::string longName(200, 'n');
    int reserved = bindAt(root / "dev/socket/orvd", false, 4);
    int filesystem = bindAt(fsPath, false, 4), abstract = bindAt(abstractName, true, 4);
    ASSERT_TRUE(reserved >= 0 && filesystem >= 0 && abstract >= 0);
    // Name, namespace, the server that accepts (-1: the connection must fail).
    const std::tuple<std::string, int, int> cases[] = {
        {"orvd", ANDROID_SOCKET_NAMESPACE_RESERVED, reserved},
        {fsPath, ANDROID_SOCKET_NAMESPACE_FILESYSTEM, filesystem},
        {abstractName, ANDROID_SOCKET_NAMESPACE_ABSTRACT, abstract},
        {"orvd", ANDROID_SOCKET_NAMESPACE_ABSTRACT, -1},
        {abstractName, ANDROID_SOCKET_NAMESPACE_RESERVED, -1},
        {"/nonexistent/sock", ANDROID_SOCKET_NAMESPACE_FILESYSTEM, -1},
        {"", ANDROID_SOCKET_NAMESPACE_FILESYSTEM, -1},
        {longName, ANDROID_SOCKET_NAMESPACE_RESERVED, -1},
        {longName, ANDROID_SOCKET_NAMESPACE_FILESYSTEM, -1},
        {longName, ANDROID_SOCKET_NAMESPACE_ABSTRACT, -1},
        {"orvd", 42, -1},
    };
    for (const auto& [name, ns, server] : cases) {
        int fd = socket_local_client(name.c_str(), ns, SOCK_STREAM);
        EXPECT_EQ(server >= 0, fd >= 0) << name << " ns " << ns;
        if (fd < 0) continue;
        close(fd);
        int conn = accept(server, nullptr, nullptr);
        EXPECT_GE(conn, 0) << name;
        close(conn);
    }
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    EXPECT_EQ(fd, socket_local_client_connect(fd, "orvd", ANDROID_SOCKET_NAMESPACE_RESERVED, 0));
    close(fd);
    for (int server : {reserved, filesystem, abstract}) close(server);
    EXPECT_EQ(-1, socket_local_client_connect(-1, "orvd", ANDROID_SOCKET_NAMESPACE_RESERVED,
                                              SOCK_STREAM));
}

}  // namespace

namespace {

// "fill:<n>" is answered with <n> bytes of one letter per request (a, b, c...) and a NUL; the
// server side of each connection gets a small send buffer, so replies soon wait in the queue.
struct FillListener : SocketListener {
    using SocketListener::SocketListener;
    ~FillListener() override { stopListener(); }
    bool onDataAvailable(SocketClient* c) override {
        char buf[64];
        ssize_t n = read(c->getSocket(), buf, sizeof(buf) - 1);
        if (n <= 0) return false;
        buf[n] = '\0';
        int small = 4096;
        setsockopt(c->getSocket(), SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
        if (strncmp(buf, "fill:", 5) != 0) {
            c->sendMsg(buf);
            return true;
        }
        std::string body(size_t(atoi(buf + 5)), char('a' + mFills++ % 26));
        c->sendMsg(body.c_str());
        mServed++;
        return true;
    }
    int mFills = 0;
    std::atomic<int> mServed{0};
};

// Asks for replies of `size` bytes, one request at a time (each served, or the client cut off,
// before the next is sent), without reading any.
void askFills(int fd, FillListener& l, int count, int size) {
    for (int i = 0; i < count; ++i) {
        const int before = l.mServed;
        std::string ask = "fill:" + std::to_string(size);
        if (send(fd, ask.data(), ask.size(), MSG_NOSIGNAL) != ssize_t(ask.size())) return;
        pollfd p = {fd, POLLRDHUP, 0};
        EXPECT_TRUE(orvtest::eventually([&] { return l.mServed != before || poll(&p, 1, 0) > 0; }));
    }
}

}  // namespace

// Replies a client does not read yet wait for it, whole and in order, while every other client
// is answered at once; past the bound the client is cut off and the others still do not wait.
TEST(Listener, RepliesWaitForASlowReaderWithoutStallingOthers) {
    orvtest::TempRoot root;
    FillListener listener("orvd", true);
    ASSERT_EQ(0, listener.startListener());
    int slow = connectOrvd(), greedy = connectOrvd(), polite = connectOrvd();
    timeval tv = {5, 0};
    setsockopt(polite, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    setsockopt(slow, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    setsockopt(greedy, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    askFills(slow, listener, 3, 16 * 1024);
    askFills(greedy, listener, 12, 16 * 1024);

    // Nobody reads the slow client's replies before this: a listener blocked on them never answers.
    EXPECT_EQ("ping", roundTrip(polite, "ping")) << "a reply waited for a blocked client";

    for (char letter : {'a', 'b', 'c'})
        EXPECT_TRUE(roundTrip(slow, "") == std::string(16 * 1024, letter)) << "reply " << letter;
    std::string rest;
    for (char buf[4096]; ssize_t n = read(greedy, buf, sizeof(buf));) {
        if (n < 0) break;
        rest.append(buf, size_t(n));
    }
    EXPECT_LT(rest.size(), 12u * (16 * 1024 + 1)) << "the greedy client was cut off";
    EXPECT_EQ("pong", roundTrip(polite, "pong"));
    for (int fd : {slow, greedy, polite}) close(fd);
}

// Out of descriptors, the listener still serves its clients, refuses new ones at once instead of
// finding them ready again at every poll, says so once, and accepts as soon as one is free.
TEST(Listener, SurvivesRunningOutOfDescriptors) {
    orvtest::TempRoot root;
    EchoListener listener("orvd", true);
    ASSERT_EQ(0, listener.startListener());
    int early = connectOrvd();
    ASSERT_EQ("200 before", roundTrip(early, "before"));
    // Sockets made now: connecting them later needs no descriptor.
    int refused = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int later = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    rlimit old;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &old));
    rlimit low = old;
    low.rlim_cur = std::min<rlim_t>(old.rlim_cur, 512);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &low));
    std::vector<int> fillers;
    for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) fillers.push_back(fd);
    ASSERT_EQ(EMFILE, errno);

    orvtest::LogCapture log;
    const clock_t cpuBefore = clock();
    ASSERT_EQ(refused,
              socket_local_client_connect(refused, "orvd", ANDROID_SOCKET_NAMESPACE_RESERVED, 0));
    pollfd p = {refused, POLLIN, 0};
    EXPECT_EQ(1, poll(&p, 1, 3000)) << "a waiting connection is closed, not left pending";
    EXPECT_EQ("", roundTrip(refused, ""));
    EXPECT_EQ("200 during", roundTrip(early, "during"));
    usleep(300 * 1000);
    EXPECT_LT(double(clock() - cpuBefore) / CLOCKS_PER_SEC, 0.1) << "the listener spins";
    EXPECT_EQ(1u, log.texts("SocketListener").size());

    for (int fd : fillers) close(fd);
    ASSERT_EQ(later,
              socket_local_client_connect(later, "orvd", ANDROID_SOCKET_NAMESPACE_RESERVED, 0));
    EXPECT_EQ("200 after", roundTrip(later, "after"));
    setrlimit(RLIMIT_NOFILE, &old);
    for (int fd : {early, refused, later}) close(fd);
}

// Every client gets a broadcast and runs the command; a released client is forgotten by the
// listener but lives on while someone holds a reference, and closes with the last one.
TEST(Listener, BroadcastEachSocketAndReleaseWithReferences) {
    orvtest::TempRoot root;
    EchoListener listener("orvd", true);
    ASSERT_EQ(0, listener.startListener());
    std::vector<int> fds;
    for (const char* hi : {"a", "b", "c"}) {
        fds.push_back(connectOrvd());
        ASSERT_EQ(std::string("200 ") + hi, roundTrip(fds.back(), hi));
    }
    errno = ENOENT;
    listener.sendBroadcast(600, "news", true);
    for (int fd : fds) EXPECT_EQ("600 news (No such file or directory)", roundTrip(fd, ""));

    struct Collect : SocketClientCommand {
        void runSocketCommand(SocketClient* c) override {
            c->incRef();
            clients.push_back(c);
        }
        std::vector<SocketClient*> clients;
    } collect;
    listener.runOnEachSocket(&collect);
    ASSERT_EQ(3u, collect.clients.size());
    SocketClient* held = collect.clients[1];
    EXPECT_EQ(getpid(), held->getPid());
    EXPECT_TRUE(listener.release(held));
    EXPECT_FALSE(listener.release(held));
    listener.sendBroadcast(601, "others", false);
    EXPECT_EQ("601 others", roundTrip(fds[0], ""));
    EXPECT_EQ("601 others", roundTrip(fds[2], ""));
    EXPECT_EQ(0, held->sendMsg(602, "still here", false));
    EXPECT_EQ("602 still here", roundTrip(fds[1], ""));
    for (SocketClient* c : collect.clients) c->decRef();
    EXPECT_EQ("", roundTrip(fds[1], "")) << "the last reference closes the connection";
    EXPECT_EQ("200 on", roundTrip(fds[0], "on"));
    for (int fd : fds) close(fd);
}
