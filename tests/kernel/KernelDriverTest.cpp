// Policies executed by the real daemon against real kernel drivers: a pseudo-terminal for
// "ioctl" and "orv_ioctl", a cgroup for "xfs". What changed is read back from the kernel.
#include <asm/termbits.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/ioctl.h>

#include "CpuCgroup.h"
#include "support/Orvd.h"

namespace {

using kerneltest::CpuCgroup;
using orvtest::Orvd;

// A policy whose application com.k runs `launch` on entering "launch" and `run` on "run".
std::string policy(const std::string& launch, const std::string& run = "") {
    return R"({ "parser": "v1.0", "version": "v1.0",
  "default": { "action": { "reset": { "policy": [] } } },
  "applications": { "com.k": { "action": {
    "launch": { "on_enter": [ )" +
           launch + R"( ] }, "run": { "on_enter": [ )" + run + R"( ] } } } } })";
}

// Starts orvd with debug lines on `policy` in `root`; true once it answers.
bool startOn(const orvtest::TempRoot& root, Orvd& orvd, const std::string& policy) {
    root.write("data/orvpolicy", policy);
    orvd.start(true);
    return orvd.ready();
}

// Waits until `actions` actions have run: orvctl returns once it has sent an event, before orvd
// has read it.
bool settle(const Orvd& orvd, int actions) {
    return orvtest::eventually([&] { return orvd.count("->==work finish") >= actions; });
}

std::string ioctlMethod(const std::string& path, const std::string& dir, int nr, int size,
                        const std::string& value = "") {
    std::string m = R"({ "method": "ioctl", "path": ")" + path + R"(", "method_ioctl_cfg": {
        "dir": ")" + dir +
                    R"(", "type": "T", "nr": )" + std::to_string(nr) + R"(, "size": )" +
                    std::to_string(size);
    if (value.empty()) return m + " } }";
    return m + R"(, "param_type": "binary" }, "type": "binary", "value": ")" + value + R"(" })";
}

// "12 AB ..": the form of a "binary" value.
std::string hexBytes(const void* data, size_t n) {
    std::string out;
    char pair[4];
    for (size_t i = 0; i < n; ++i) {
        snprintf(pair, sizeof pair, i ? " %02X" : "%02X",
                 static_cast<const unsigned char*>(data)[i]);
        out += pair;
    }
    return out;
}

// Both ends of a fresh pseudo-terminal; the daemon opens the slave by its /dev/pts path.
struct Pty {
    Pty() {
        master = posix_openpt(O_RDWR | O_NOCTTY);
        if (master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0)
            slave = open(ptsname(master), O_RDWR | O_NOCTTY);
        if (slave >= 0) path = ptsname(master);
    }
    ~Pty() {
        close(slave);
        close(master);
    }
    int master = -1, slave = -1;
    std::string path;
};

TEST(KernelDriver, IoctlOnAPseudoTerminal) {
    Pty pty;
    if (pty.slave < 0) GTEST_SKIP() << "no pseudo-terminal: " << strerror(errno);
    termios2 want;
    ASSERT_EQ(0, ioctl(pty.slave, TCGETS2, &want));
    want.c_lflag &= ~ECHO;
    want.c_cflag = (want.c_cflag & ~CBAUD) | BOTHER;
    want.c_ispeed = want.c_ospeed = 12345;
    want.c_cc[VMIN] = 7;
    winsize size{24, 80, 0, 0};

    // On Linux the classic tty requests carry no direction or size bits: TIOCSWINSZ is 0x5414,
    // which the "_IO" form reaches without an argument, and the "_IOW" form is another request.
    const std::string at = " @com.k.action.launch.on_enter";
    struct {
        const char* what;
        std::string method;
        std::string line;  // the daemon's error line; empty for a request the driver takes
    } cases[] = {
        {"_IOW TCSETS2, 44 binary bytes",
         ioctlMethod(pty.path, "_IOW", 0x2B, sizeof want, hexBytes(&want, sizeof want)), ""},
        {"_IO TIOCSWINSZ: no argument", ioctlMethod(pty.path, "_IO", 0x14, 0),
         "ioctl{path:" + pty.path +
             " dir:0 type:84 nr:20 size:0 param_type:undefined} (ret=-1, errno=14)" + at +
             "[1]ioctl"},
        {"_IOW TIOCSWINSZ: unknown to the driver",
         ioctlMethod(pty.path, "_IOW", 0x14, sizeof size, hexBytes(&size, sizeof size)),
         "ioctl{path:" + pty.path +
             " dir:1 type:84 nr:20 size:8 param_type:binary} (ret=-1, errno=25)" + at + "[2]ioctl"},
        {"orv_ioctl: unknown to the driver",
         R"({ "method": "orv_ioctl", "path": ")" + pty.path + R"(", "cmd": 1, "value": "x" })",
         "orv_ioctl{path:" + pty.path + " cmd:1 value:x} (ret=-1, errno=25)" + at + "[3]orv_ioctl"},
        // Last: every method opens the node afresh, and an exclusive tty refuses that to non-root.
        {"_IO TIOCEXCL", ioctlMethod(pty.path, "_IO", 0x0C, 0), ""},
    };
    std::string methods;
    for (const auto& c : cases) methods += (methods.empty() ? "" : ", ") + c.method;

    orvtest::TempRoot root;
    Orvd orvd(root);
    ASSERT_TRUE(startOn(root, orvd, policy(methods))) << orvd.log();
    ASSERT_EQ(0, orvd.ctl("launch com.k").status);
    ASSERT_TRUE(settle(orvd, 1)) << orvd.log();

    int failures = 0;
    for (const auto& c : cases) {
        if (c.line.empty()) continue;
        ++failures;
        EXPECT_TRUE(orvd.logged("E OrvActionManager: " + c.line)) << c.what << "\n" << orvd.log();
    }
    EXPECT_EQ(failures, orvd.count(" E OrvActionManager: ")) << orvd.log();
    termios2 got;
    ASSERT_EQ(0, ioctl(pty.slave, TCGETS2, &got));
    EXPECT_EQ(want.c_lflag, got.c_lflag);
    EXPECT_EQ(12345u, got.c_ospeed);
    EXPECT_EQ(7, got.c_cc[VMIN]);
    int exclusive = 0;
    ASSERT_EQ(0, ioctl(pty.slave, TIOCGEXCL, &exclusive));
    EXPECT_EQ(1, exclusive);
    winsize now{1, 1, 1, 1};
    ASSERT_EQ(0, ioctl(pty.master, TIOCGWINSZ, &now));
    EXPECT_EQ(0, now.ws_row + now.ws_col) << "neither TIOCSWINSZ attempt may set a size";
}

// A child that only waits: the application process that the policy moves.
struct Sleeper {
    Sleeper() {
        if ((pid = fork()) == 0) {
            pause();
            _exit(0);
        }
    }
    ~Sleeper() { kill(pid, SIGKILL), waitpid(pid, nullptr, 0); }
    pid_t pid;
};

TEST(KernelDriver, XfsIntoACgroup) {
    CpuCgroup group;
    if (!group.why().empty()) GTEST_SKIP() << group.why();
    Sleeper app;
    const std::string knob = group.file(group.knob());
    auto xfs = [](const std::string& path, const std::string& type, const std::string& value) {
        return R"({ "method": "xfs", "path": ")" + path + R"(", "type": ")" + type +
               R"(", "value": )" + value + " }";
    };
    orvtest::TempRoot root;
    Orvd orvd(root);
    ASSERT_TRUE(startOn(root, orvd,
                        policy(xfs(knob, "int", "512") + ", " + xfs(knob, "string", R"("abc")"),
                               xfs(group.file("cgroup.procs"), "var", R"("PID")"))))
        << orvd.log();
    ASSERT_EQ(0, orvd.ctl("launch com.k").status);
    ASSERT_EQ(0, orvd.ctl("start " + std::to_string(app.pid) + " com.k").status);
    ASSERT_EQ(0, orvd.ctl("displayed " + std::to_string(app.pid) + " com.k").status);
    ASSERT_TRUE(settle(orvd, 2)) << orvd.log();  // launch, then displayed (start stays)

    // The kernel took 512 and refused "abc" with EINVAL, keeping 512.
    EXPECT_EQ("512\n", orvtest::readFile(knob));
    EXPECT_TRUE(orvd.logged("E OrvActionManager: write \"" + knob +
                            "\" failed (errno=22) @com.k.action.launch.on_enter[1]xfs"))
        << orvd.log();
    EXPECT_EQ(1, orvd.count(" E OrvActionManager: ")) << orvd.log();
    EXPECT_EQ(std::to_string(app.pid) + "\n", orvtest::readFile(group.file("cgroup.procs")));
    std::string where = orvtest::readFile("/proc/" + std::to_string(app.pid) + "/cgroup");
    EXPECT_NE(where.find(group.path().substr(group.path().rfind('/')) + "\n"), std::string::npos)
        << where;
}

}  // namespace
