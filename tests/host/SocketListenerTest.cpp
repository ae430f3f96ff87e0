#include <android/log.h>
#include <cutils/sockets.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sysutils/SocketListener.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "support/OrvTestSupport.h"

namespace {

// Replies "200 <data>" to every read; "bye" or end of stream asks the platform to drop the client.
class EchoListener : public SocketListener {
  public:
    using SocketListener::SocketListener;
    ~EchoListener() override { stopListener(); }

    struct Event {
        int fd;
        std::string data;  // empty: end of stream
    };
    bool waitEvents(size_t n) {
        std::unique_lock<std::mutex> lock(mLock);
        return mCond.wait_for(lock, std::chrono::seconds(5), [&] { return mEvents.size() >= n; });
    }
    std::vector<Event> events() {
        std::lock_guard<std::mutex> lock(mLock);
        return mEvents;
    }

  protected:
    bool onDataAvailable(SocketClient* c) override {
        char buf[256];
        ssize_t n;
        do {
            n = read(c->getSocket(), buf, sizeof(buf));
        } while (n < 0 && errno == EINTR);
        std::string data = n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
        bool keep = n > 0 && data != "bye";
        // Recorded before the reply, so a client that got its reply finds its event.
        {
            std::lock_guard<std::mutex> lock(mLock);
            mEvents.push_back({c->getSocket(), data});
        }
        mCond.notify_all();
        if (keep) c->sendMsg(200, data.c_str(), false);
        return keep;
    }

  private:
    std::mutex mLock;
    std::condition_variable mCond;
    std::vector<Event> mEvents;
};

int connectOrvd() {
    return socket_local_client("orvd", ANDROID_SOCKET_NAMESPACE_RESERVED, SOCK_STREAM);
}

// Sends `text` and returns the reply up to its NUL ("" when the connection ends first).
std::string roundTrip(int fd, const std::string& text) {
    if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) return "";
    std::string reply;
    char c;
    while (read(fd, &c, 1) == 1) {
        if (c == '\0') return reply;
        reply += c;
    }
    return "";
}

bool atEof(int fd) {
    char c;
    ssize_t n;
    do {
        n = read(fd, &c, 1);
    } while (n < 0 && errno == EINTR);
    return n == 0;
}

int bindStale(const std::string& path) {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

TEST(Listener, CreatesSocketWithMode0660WhateverTheUmask) {
    for (mode_t mask : {mode_t(0), mode_t(077), mode_t(022)}) {
        orvtest::TempRoot root;
        // The whole of dev/socket is missing.
        ASSERT_EQ(0, rmdir((root / "dev").c_str()));
        unsetenv("ANDROID_SOCKET_orvd");
        mode_t old = umask(mask);
        EchoListener listener("orvd", true);
        int rc = listener.startListener();
        umask(old);
        ASSERT_EQ(0, rc);
        struct stat st;
        ASSERT_EQ(0, lstat((root / "dev/socket/orvd").c_str(), &st));
        EXPECT_TRUE(S_ISSOCK(st.st_mode));
        EXPECT_EQ(0660u, st.st_mode & 07777) << "umask " << std::oct << mask;
        int fd = connectOrvd();
        EXPECT_EQ("200 ping", roundTrip(fd, "ping"));
        close(fd);
    }
}

TEST(Listener, ServesClientsAndDropsOnlyTheOneThatSaysFalse) {
    orvtest::TempRoot root;
    EchoListener listener("orvd", true);
    ASSERT_EQ(0, listener.startListener());
    int a = connectOrvd(), b = connectOrvd(), c = connectOrvd();
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    ASSERT_GE(c, 0);
    EXPECT_EQ("200 a1", roundTrip(a, "a1"));
    EXPECT_EQ("200 b1", roundTrip(b, "b1"));
    EXPECT_EQ("200 c1", roundTrip(c, "c1"));
    EXPECT_EQ("", roundTrip(b, "bye"));
    EXPECT_TRUE(atEof(b)) << "a false return closes the client";
    EXPECT_EQ("200 a2", roundTrip(a, "a2"));
    EXPECT_EQ("200 c2", roundTrip(c, "c2"));

    // Client order and data as delivered.
    std::vector<std::string> seen;
    for (const auto& e : listener.events()) seen.push_back(e.data);
    EXPECT_EQ((std::vector<std::string>{"a1", "b1", "c1", "bye", "a2", "c2"}), seen);
    close(a);
    close(b);
    close(c);
}

TEST(Listener, HangUpIsDeliveredOnceAndTheClientForgotten) {
    orvtest::TempRoot root;
    EchoListener listener("orvd", true);
    ASSERT_EQ(0, listener.startListener());
    int quiet = connectOrvd();
    ASSERT_GE(quiet, 0);
    close(quiet);
    ASSERT_TRUE(listener.waitEvents(1));
    // A client that writes and vanishes: its data comes first, then the hang-up.
    int hasty = connectOrvd();
    ASSERT_EQ(4, write(hasty, "last", 4));
    close(hasty);
    ASSERT_TRUE(listener.waitEvents(3));
    // The forgotten clients are no longer polled: a fresh client is the only other event.
    int later = connectOrvd();
    EXPECT_EQ("200 x", roundTrip(later, "x"));
    close(later);
    ASSERT_TRUE(listener.waitEvents(5));
    auto ev = listener.events();
    ASSERT_EQ(5u, ev.size());
    EXPECT_EQ("", ev[0].data);
    EXPECT_EQ("last", ev[1].data);
    EXPECT_EQ("", ev[2].data);
    EXPECT_EQ("x", ev[3].data);
    EXPECT_EQ("", ev[4].data);
}

TEST(Listener, ReplacesStaleSocket) {
    orvtest::TempRoot root;
    ASSERT_EQ(0, mkdir((root / "dev/socket").c_str(), 0755));
    int stale = bindStale(root / "dev/socket/orvd");
    ASSERT_GE(stale, 0);
    close(stale);  // the file stays, nobody accepts on it
    EchoListener listener("orvd", true);
    ASSERT_EQ(0, listener.startListener());
    int fd = connectOrvd();
    EXPECT_EQ("200 fresh", roundTrip(fd, "fresh"));
    close(fd);
}

TEST(Listener, LeavesLiveSocketAlone) {
    orvtest::TempRoot root;
    EchoListener first("orvd", true);
    ASSERT_EQ(0, first.startListener());
    struct stat before, after;
    ASSERT_EQ(0, lstat((root / "dev/socket/orvd").c_str(), &before));
    {
        orvtest::LogCapture log;
        EchoListener second("orvd", true);
        EXPECT_EQ(-1, second.startListener());
        auto recs = log.records();
        ASSERT_EQ(1u, recs.size());
        EXPECT_EQ(ANDROID_LOG_ERROR, recs[0].prio);
        EXPECT_EQ("SocketListener", recs[0].tag);
    }
    ASSERT_EQ(0, lstat((root / "dev/socket/orvd").c_str(), &after));
    EXPECT_EQ(before.st_ino, after.st_ino);
    int fd = connectOrvd();
    EXPECT_EQ("200 still me", roundTrip(fd, "still me"));
    close(fd);
}

TEST(Listener, RefusesNonSocketFile) {
    orvtest::TempRoot root;
    root.write("dev/socket/orvd", "not a socket");
    orvtest::LogCapture log;
    EchoListener listener("orvd", true);
    EXPECT_EQ(-1, listener.startListener());
    EXPECT_EQ("not a socket", orvtest::readFile(root / "dev/socket/orvd"));
    EXPECT_EQ(1u, log.records().size());
}

TEST(Listener, TakesSocketHandedOverInEnvironment) {
    orvtest::TempRoot root;
    std::string path = root / "launcher.sock";
    int handed = bindStale(path);
    ASSERT_GE(handed, 0);
    setenv("ANDROID_SOCKET_orvd", std::to_string(handed).c_str(), 1);
    EchoListener listener("orvd", true);
    ASSERT_EQ(0, listener.startListener());
    unsetenv("ANDROID_SOCKET_orvd");
    struct stat st;
    EXPECT_NE(0, lstat((root / "dev/socket/orvd").c_str(), &st)) << "nothing created";
    int fd = socket_local_client(path.c_str(), ANDROID_SOCKET_NAMESPACE_FILESYSTEM, SOCK_STREAM);
    EXPECT_EQ("200 handed", roundTrip(fd, "handed"));
    close(fd);
}

TEST(Listener, StopClosesClientsAndRemovesSocket) {
    orvtest::TempRoot root;
    EchoListener listener("orvd", true);
    ASSERT_EQ(0, listener.startListener());
    int fd = connectOrvd();
    EXPECT_EQ("200 hi", roundTrip(fd, "hi"));
    EXPECT_EQ(0, listener.stopListener());
    EXPECT_TRUE(atEof(fd));
    close(fd);
    EXPECT_EQ(-1, connectOrvd());
    EXPECT_EQ(-1, listener.stopListener());
    // And it can serve again.
    ASSERT_EQ(0, listener.startListener());
    fd = connectOrvd();
    EXPECT_EQ("200 again", roundTrip(fd, "again"));
    close(fd);
}

TEST(Listener, DescriptorForms) {
    orvtest::TempRoot root;
    // Listening on a descriptor we own: it is not closed by stop.
    std::string path = root / "own.sock";
    int own = bindStale(path);
    ASSERT_GE(own, 0);
    {
        EchoListener listener(own, true);
        ASSERT_EQ(0, listener.startListener());
        int fd = socket_local_client(path.c_str(), ANDROID_SOCKET_NAMESPACE_FILESYSTEM, SOCK_STREAM);
        EXPECT_EQ("200 fd", roundTrip(fd, "fd"));
        close(fd);
    }
    struct stat st;
    EXPECT_EQ(0, fstat(own, &st));
    close(own);

    // Not listening: the descriptor itself is the one client.
    int sv[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
    {
        EchoListener listener(sv[0], false);
        ASSERT_EQ(0, listener.startListener());
        EXPECT_EQ("200 direct", roundTrip(sv[1], "direct"));
        ASSERT_EQ(3, write(sv[1], "bye", 3));
        ASSERT_TRUE(listener.waitEvents(2));
        EXPECT_EQ("200 still", roundTrip(sv[1], "still")) << "only connections are dropped";
        auto ev = listener.events();
        ASSERT_EQ(3u, ev.size());
        EXPECT_EQ(sv[0], ev[0].fd);
    }
    EXPECT_EQ(0, fstat(sv[0], &st));
    close(sv[0]);
    close(sv[1]);
}

}  // namespace
