#include <cutils/sockets.h>
#include <gtest/gtest.h>
#include <stddef.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

#include "support/OrvTestSupport.h"

namespace {

// A non-blocking listening unix socket at the path `name`, or under the abstract `name`.
int listenAt(const std::string& name, bool abstract) {
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path + abstract, name.data(), name.size());
    socklen_t len = socklen_t(offsetof(sockaddr_un, sun_path) + abstract + name.size());
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), len) == 0 && listen(fd, 4) == 0) return fd;
    close(fd);
    return -1;
}

TEST(LocalClient, NamespacesAndFailures) {
    orvtest::TempRoot root;
    ASSERT_EQ(0, mkdir((root / "dev/socket").c_str(), 0755));
    std::string fsPath = root / "plain.sock", abstractName = "orvtest-" + std::to_string(getpid());
    std::string longName(200, 'n');
    int reserved = listenAt(root / "dev/socket/orvd", false);
    int filesystem = listenAt(fsPath, false), abstract = listenAt(abstractName, true);
    ASSERT_TRUE(reserved >= 0 && filesystem >= 0 && abstract >= 0);
    struct Case {
        std::string name;
        int ns, server;  // server -1: the connection must fail
    } cases[] = {
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
    for (const auto& c : cases) {
        int fd = socket_local_client(c.name.c_str(), c.ns, SOCK_STREAM);
        EXPECT_EQ(c.server >= 0, fd >= 0) << c.name << " ns " << c.ns;
        if (fd < 0) continue;
        close(fd);
        int conn = accept(c.server, nullptr, nullptr);
        EXPECT_GE(conn, 0) << c.name;
        close(conn);
    }
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    EXPECT_EQ(fd, socket_local_client_connect(fd, "orvd", ANDROID_SOCKET_NAMESPACE_RESERVED, 0));
    close(fd);
    close(reserved);
    close(filesystem);
    close(abstract);
    EXPECT_EQ(-1, socket_local_client_connect(-1, "orvd", ANDROID_SOCKET_NAMESPACE_RESERVED,
                                              SOCK_STREAM));
}

}  // namespace
