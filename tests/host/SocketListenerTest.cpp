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
    // The platform's stop is for a running listener only.
    ~EchoListener() override {
        if (mRunning) stopListener();
    }
    int startListener() {
        int rc = SocketListener::startListener();
        mRunning = rc == 0;
        return rc;
    }
    int stopListener() {
        mRunning = false;
        return SocketListener::stopListener();
    }

    // Data of each read in order, "" for end of stream.
    std::vector<std::string> waitEvents(size_t n) {
        std::unique_lock<std::mutex> lock(mLock);
        EXPECT_TRUE(mCond.wait_for(lock, std::chrono::milliseconds(orvtest::kWaitMs),
                                   [&] { return mEvents.size() >= n; }));
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
    bool mRunning = false;
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

// Waits for `fd` to become readable; false when `ms` pass first.
bool readable(int fd, int ms) {
    pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, ms) == 1;
}

}  // namespace

// As on the device, a reply blocks the listener until the client takes it: while one client
// leaves its replies unread nobody else is served, and everyone is once it reads.
TEST(Listener, AReplyNobodyReadsHoldsTheWholeListener) {
    orvtest::TempRoot root;
    EchoListener listener("orvd", true);
    ASSERT_EQ(0, listener.startListener());
    int greedy = connectOrvd(), polite = connectOrvd();
    ASSERT_EQ("200 hello", roundTrip(polite, "hello"));
    const std::string ask(200, 'q');
    size_t sent = 0;
    // Until the listener takes nothing more: it is stuck in a reply.
    for (pollfd p = {greedy, POLLOUT, 0}; poll(&p, 1, 1000) == 1; sent += ask.size())
        if (send(greedy, ask.data(), ask.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0) break;
    ASSERT_EQ(5, write(polite, "again", 5));
    EXPECT_FALSE(readable(polite, 300)) << "answered while the listener is stuck";
    std::string got;
    // Every byte asked for comes back in some reply: nothing was dropped or cut off.
    for (char buf[4096]; got.size() < sent && readable(greedy, orvtest::kWaitMs);) {
        ssize_t n = read(greedy, buf, sizeof(buf));
        if (n <= 0) break;
        got.append(buf, size_t(n));
    }
    EXPECT_EQ(0u, got.find("200 qqq"));
    EXPECT_GE(got.size(), sent);
    EXPECT_TRUE(readable(polite, orvtest::kWaitMs));
    EXPECT_EQ("200 again", roundTrip(polite, ""));
    close(greedy);
    close(polite);
}

// Out of descriptors, a failed accept is logged and retried a second later, and nobody is served
// meanwhile; once a descriptor is free the waiting connection is taken and everyone is served.
TEST(Listener, AFailedAcceptIsRetriedEverySecondBeforeAnythingElse) {
    orvtest::TempRoot root;
    EchoListener listener("orvd", true);
    ASSERT_EQ(0, listener.startListener());
    int early = connectOrvd();
    ASSERT_EQ("200 before", roundTrip(early, "before"));
    int waiting = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    rlimit old;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &old));
    rlimit low = old;
    low.rlim_cur = std::min<rlim_t>(old.rlim_cur, 512);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &low));
    std::vector<int> fillers;
    for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) fillers.push_back(fd);
    ASSERT_EQ(EMFILE, errno);

    orvtest::LogCapture log;
    ASSERT_EQ(waiting,
              socket_local_client_connect(waiting, "orvd", ANDROID_SOCKET_NAMESPACE_RESERVED, 0));
    ASSERT_TRUE(log.waitFor("accept failed (Too many open files)", 2));
    ASSERT_EQ(6, write(early, "during", 6));
    EXPECT_FALSE(readable(early, 300)) << "served while a connection cannot be taken";

    for (int fd : fillers) close(fd);
    setrlimit(RLIMIT_NOFILE, &old);
    EXPECT_EQ("200 during", roundTrip(early, ""));
    EXPECT_EQ("200 after", roundTrip(waiting, "after"));
    for (int fd : {early, waiting}) close(fd);
}

// A socket that cannot be bound fails the start; a stop without a running listener fails and
// says so, as the platform's does.
TEST(Listener, FailedBindFailsTheStartAndAStrayStopIsAnError) {
    orvtest::TempRoot root;
    ASSERT_EQ(0, rmdir((root / "dev").c_str()));
    root.write("dev", "a file where the directory should be");
    orvtest::LogCapture log;
    EchoListener listener("orvd", true);
    EXPECT_EQ(-1, listener.startListener());
    EXPECT_EQ(1, log.countContaining("dev/socket", "SocketListener")) << "names the path";
    EXPECT_EQ(-1, listener.stopListener());
    EXPECT_EQ(1, log.count("Error writing to control pipe (Bad file descriptor)"));
}

// Ready clients are served in an order of the platform's choosing: the newest first here.
TEST(Listener, ServesReadyClientsNewestFirst) {
    orvtest::TempRoot root;
    EchoListener listener("orvd", true);
    ASSERT_EQ(0, listener.startListener());
    int older = connectOrvd();
    ASSERT_EQ("200 o", roundTrip(older, "o"));
    int newer = connectOrvd();
    ASSERT_EQ("200 n", roundTrip(newer, "n"));
    // Both ready before the listener wakes: stopped in a reply to a third, stuck client.
    int stuck = connectOrvd();
    const std::string ask(200, 'q');
    for (pollfd p = {stuck, POLLOUT, 0}; poll(&p, 1, 1000) == 1;)
        if (send(stuck, ask.data(), ask.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0) break;
    ASSERT_EQ(1, write(older, "1", 1));
    ASSERT_EQ(1, write(newer, "2", 1));
    close(stuck);
    EXPECT_EQ("200 1", roundTrip(older, ""));
    EXPECT_EQ("200 2", roundTrip(newer, ""));
    auto ev = listener.waitEvents(0);
    auto one = std::find(ev.begin(), ev.end(), "1"), two = std::find(ev.begin(), ev.end(), "2");
    ASSERT_TRUE(one != ev.end() && two != ev.end());
    EXPECT_LT(two - ev.begin(), one - ev.begin());
    for (int fd : {older, newer}) close(fd);
}
