#include <cutils/sockets.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stddef.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

#include "support/OrvTestSupport.h"

namespace {

// A listening unix socket bound to `addr` (length `len`); -1 on failure.
int listenAt(const sockaddr_un& addr, socklen_t len) {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) return -1;
    if (bind(fd, reinterpret_cast<const sockaddr*>(&addr), len) != 0 || listen(fd, 4) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int listenAtPath(const std::string& path) {
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    return listenAt(addr, sizeof(addr));
}

int listenAbstract(const std::string& name) {
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path + 1, name.data(), name.size());
    return listenAt(addr, static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size()));
}

// Proves that `client` reached `server`: a byte goes through the accepted connection.
void expectConnected(int server, int client) {
    ASSERT_GE(client, 0);
    int conn = accept(server, nullptr, nullptr);
    ASSERT_GE(conn, 0);
    ASSERT_EQ(1, write(client, "k", 1));
    char c = 0;
    EXPECT_EQ(1, read(conn, &c, 1));
    EXPECT_EQ('k', c);
    close(conn);
}

TEST(LocalClient, ThreeNamespaces) {
    orvtest::TempRoot root;
    ASSERT_EQ(0, mkdir((root / "dev/socket").c_str(), 0755));
    int reserved = listenAtPath(root / "dev/socket/orvd");
    std::string fsPath = root / "plain.sock";
    int filesystem = listenAtPath(fsPath);
    std::string abstractName = "orvtest-" + std::to_string(getpid());
    int abstract = listenAbstract(abstractName);
    ASSERT_GE(reserved, 0);
    ASSERT_GE(filesystem, 0);
    ASSERT_GE(abstract, 0);

    expectConnected(reserved,
                    socket_local_client("orvd", ANDROID_SOCKET_NAMESPACE_RESERVED, SOCK_STREAM));
    expectConnected(
        filesystem,
        socket_local_client(fsPath.c_str(), ANDROID_SOCKET_NAMESPACE_FILESYSTEM, SOCK_STREAM));
    expectConnected(abstract, socket_local_client(abstractName.c_str(),
                                                  ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM));

    // The caller's descriptor is connected and returned as is.
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    EXPECT_EQ(fd, socket_local_client_connect(fd, "orvd", ANDROID_SOCKET_NAMESPACE_RESERVED,
                                              SOCK_STREAM));
    expectConnected(reserved, fd);
    close(fd);

    // A name from one namespace is not found in another.
    EXPECT_EQ(-1, socket_local_client("orvd", ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM));
    EXPECT_EQ(-1, socket_local_client(abstractName.c_str(), ANDROID_SOCKET_NAMESPACE_RESERVED,
                                      SOCK_STREAM));
    close(reserved);
    close(filesystem);
    close(abstract);
}

TEST(LocalClient, Failures) {
    orvtest::TempRoot root;
    std::string longName(200, 'n');
    struct Case {
        const char* name;
        int ns;
    } cases[] = {
        {"orvd", ANDROID_SOCKET_NAMESPACE_RESERVED},  // nobody listens
        {"/nonexistent/sock", ANDROID_SOCKET_NAMESPACE_FILESYSTEM},
        {"", ANDROID_SOCKET_NAMESPACE_FILESYSTEM},
        {longName.c_str(), ANDROID_SOCKET_NAMESPACE_RESERVED},
        {longName.c_str(), ANDROID_SOCKET_NAMESPACE_FILESYSTEM},
        {longName.c_str(), ANDROID_SOCKET_NAMESPACE_ABSTRACT},
        {"orvd", 42},
    };
    for (const auto& c : cases) {
        int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        EXPECT_EQ(-1, socket_local_client_connect(fd, c.name, c.ns, SOCK_STREAM))
            << c.name << " ns " << c.ns;
        close(fd);
        EXPECT_EQ(-1, socket_local_client(c.name, c.ns, SOCK_STREAM));
    }
    EXPECT_EQ(-1, socket_local_client_connect(-1, "orvd", ANDROID_SOCKET_NAMESPACE_RESERVED,
                                              SOCK_STREAM));
}

TEST(ControlSocket, FromEnvironment) {
    int sock = socket(AF_UNIX, SOCK_STREAM, 0);
    int file = open("/dev/null", O_RDONLY);
    int closed = dup(file);
    close(closed);
    struct Case {
        std::string value;  // "-" leaves the variable unset
        int expect;
    } cases[] = {
        {"-", -1},
        {"", -1},
        {std::to_string(sock), sock},
        {std::to_string(file), -1},    // not a socket
        {std::to_string(closed), -1},  // not open
        {std::to_string(sock) + "x", -1},
        {" " + std::to_string(sock), -1},
        {"-" + std::to_string(sock), -1},
        {"99999999999999999999", -1},
    };
    for (const auto& c : cases) {
        if (c.value == "-")
            unsetenv("ANDROID_SOCKET_orvd");
        else
            setenv("ANDROID_SOCKET_orvd", c.value.c_str(), 1);
        EXPECT_EQ(c.expect, android_get_control_socket("orvd")) << '"' << c.value << '"';
    }
    setenv("ANDROID_SOCKET_orvd", std::to_string(sock).c_str(), 1);
    EXPECT_EQ(-1, android_get_control_socket("other"));
    unsetenv("ANDROID_SOCKET_orvd");
    close(sock);
    close(file);
}

}  // namespace
