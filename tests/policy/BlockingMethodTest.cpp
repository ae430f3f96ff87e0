// Methods that would hold the action thread for good: nodes that block in open() or read(),
// programs that never end. Each must fail on its own and let the next method run.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>

#include <functional>

#include "PolicyTestSupport.h"

using namespace policytest;

namespace {

using BlockingMethodTest = PolicyTest;

const char kAt[] = "A.action.run.on_enter[0]";

// A policy whose app A runs `method` and then writes "next" to `marker` on entering "run".
std::string policy(const std::string& method, const std::string& marker) {
    return R"({"parser":"v1.0","version":"v1","applications":{"A":{"action":{"run":{"on_enter":[)" +
           method + "," + xfs(marker, "next") + "]}}}}}";
}

// Is `path` readable now? (A node with unread records is not the idle case under test.)
bool hasUnread(const char* path) {
    int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;
    struct pollfd p = {fd, POLLIN, 0};
    bool ready = poll(&p, 1, 0) > 0 && (p.revents & POLLIN);
    close(fd);
    return ready;
}

TEST_F(BlockingMethodTest, NodesThatWouldBlockFailAtOnceAndTheNextMethodRuns) {
    const std::string marker = makeFifo();
    const std::string lonely = mRoot / "lonely";  // a FIFO nobody holds
    ASSERT_EQ(0, mkfifo(lonely.c_str(), 0600));
    const std::string idle = mRoot / "idle";  // a FIFO with a writer that never writes
    ASSERT_EQ(0, mkfifo(idle.c_str(), 0600));
    int idleFd = open(idle.c_str(), O_RDWR | O_NONBLOCK);
    const std::string full = mRoot / "full";  // a FIFO with a reader that never reads
    ASSERT_EQ(0, mkfifo(full.c_str(), 0600));
    int fullFd = open(full.c_str(), O_RDWR | O_NONBLOCK);
    std::string chunk(4096, 'x');
    while (write(fullFd, chunk.data(), chunk.size()) > 0) {
    }
    const char* tracePipe = access("/sys/kernel/tracing/trace_pipe", R_OK) == 0
                                ? "/sys/kernel/tracing/trace_pipe"
                                : "/sys/kernel/debug/tracing/trace_pipe";
    const std::string sink = mRoot / "sink";  // a value that is read must land here
    mRoot.write("sink", "");
    auto readInto = [&](const std::string& node) {
        return R"({"method":"xfs","path":")" + sink + R"(","type":"xfs","value":")" + node + R"("})";
    };
    // clang-format off
    const struct {
        const char* name;
        std::string method;
        std::string error;     // the one error line, "" when the failure is silent as any read's
        const char* skipped;   // why the row cannot run here, null when it can
    } rows[] = {
        // open(O_WRONLY) on a FIFO waits for a reader.
        {"write, FIFO without reader", xfs(lonely, "1"),
         "cannot open \"" + lonely + "\" (errno=6) @" + kAt + "xfs", nullptr},
        // write() waits for room.
        {"write, full FIFO", xfs(full, "1"),
         "write \"" + full + "\" failed (errno=11) @" + kAt + "xfs", nullptr},
        // open(O_RDONLY) waits for a writer.
        {"read, FIFO without writer", readInto(lonely), "", nullptr},
        // read() waits for data.
        {"read, FIFO with an idle writer", readInto(idle), "", nullptr},
        {"read, /proc/kmsg with nothing unread", readInto("/proc/kmsg"), "",
         access("/proc/kmsg", R_OK) != 0 ? "/proc/kmsg is not readable (needs CAP_SYSLOG)"
         : hasUnread("/proc/kmsg") ? "/proc/kmsg holds unread records (not draining the kernel log)"
         : nullptr},
        {"read, idle trace_pipe", readInto(tracePipe), "",
         access(tracePipe, R_OK) != 0 ? "no readable tracefs trace_pipe"
         : hasUnread(tracePipe) ? "trace_pipe holds unread events" : nullptr},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        if (row.skipped != nullptr) {
            std::cout << "[ SKIPPED  ] " << row.name << ": " << row.skipped << std::endl;
            continue;
        }
        OrvActionManager* manager = start(policy(row.method, marker));
        mLog.clear();
        (new AppSwitch("B", 1, 2, "run", "A", 3, 4, "run"))->send(manager);
        sync(manager);
        EXPECT_EQ("next", drainFifo());
        EXPECT_EQ("", orvtest::readFile(sink));
        EXPECT_EQ(row.error, errors());
    }
    close(idleFd);
    close(fullFd);
}

// Has `pid` ended (gone, or a zombie left for its new parent to reap)?
bool ended(pid_t pid) {
    std::string stat = orvtest::readFile("/proc/" + std::to_string(pid) + "/stat");
    size_t paren = stat.rfind(')');
    return stat.empty() || (paren != std::string::npos && stat.compare(paren, 3, ") Z") == 0);
}

TEST_F(BlockingMethodTest, ProgramsPastTheirLimitAreKilledWithWhatTheyStarted) {
    const std::string marker = makeFifo();
    const std::string pidFile = mRoot / "child";
    const std::string canary = mRoot / "ran";
    auto program = [](const std::string& path, const std::string& value, const char* limit) {
        return R"({"method":"program","path":")" + path + R"(","type":"string","value":")" + value +
               "\"" + limit + "}";
    };
    // clang-format off
    const struct {
        const char* name;
        std::string method;
        std::string error;  // the one error line
        bool startsChild;   // the command leaves its pid in pidFile
    } rows[] = {
        // The shell waits on a child of its own: both end at the limit.
        {"own limit", program("sleep", "600 & echo $! >" + pidFile + "; wait", R"(,"timeout_ms":300)"),
         "system(\"sleep 600 & echo $! >" + pidFile + "; wait\") killed after 300 ms @" + kAt + "program", true},
        {"default limit", program("exec", "sleep 600", ""),
         std::string("system(\"exec sleep 600\") killed after 5000 ms @") + kAt + "program", false},
        // Refused rather than run without a limit.
        {"limit not positive", program("touch", canary, R"(,"timeout_ms":0)"),
         std::string("\"timeout_ms\" must be a positive number of milliseconds @") + kAt + "program", false},
        {"limit not a number", program("touch", canary, R"(,"timeout_ms":"1s")"),
         std::string("\"timeout_ms\" must be a positive number of milliseconds @") + kAt + "program", false},
        // Within its limit a program runs as it always did.
        {"within the limit", program("touch", canary, R"(,"timeout_ms":60000)"), "", false},
    };
    // clang-format on
    unsigned seed = 1;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        unlink(pidFile.c_str());
        OrvActionManager* manager = start(protect(policy(row.method, marker), seed++));
        mLog.clear();
        (new AppSwitch("B", 1, 2, "run", "A", 3, 4, "run"))->send(manager);
        sync(manager);
        EXPECT_EQ("next", drainFifo());
        EXPECT_EQ(row.error, errors());
        EXPECT_EQ(row.error.empty(), access(canary.c_str(), F_OK) == 0);
        if (row.startsChild) {
            pid_t child = atoi(orvtest::readFile(pidFile).c_str());
            ASSERT_GT(child, 0);
            EXPECT_TRUE(orvtest::eventually([&] { return ended(child); })) << child;
        }
    }
}

// The ioctl methods keep their node open for orvd's life; a program must not inherit it.
TEST_F(BlockingMethodTest, ProgramsInheritNoDescriptorOfOrvd) {
    const std::string marker = makeFifo();
    const std::string node = mRoot.write("node", "");
    const std::string listing = mRoot / "fds";
    const std::string methods =
        R"({"method":"orv_ioctl","path":")" + node + R"(","cmd":1,"value":"1"},)" +
        R"({"method":"program","path":"ls -l /proc/$$/fd >","type":"string","value":")" + listing +
        R"("})";
    OrvActionManager* manager = start(protect(policy(methods, marker), 5));
    (new AppSwitch("B", 1, 2, "run", "A", 3, 4, "run"))->send(manager);
    sync(manager);
    EXPECT_EQ("next", drainFifo());
    EXPECT_TRUE(mLog.has("orv_ioctl{path:" + node + " cmd:1 value:1} (ret=-1, errno=25) @" + kAt +
                         "orv_ioctl"));
    const std::string fds = orvtest::readFile(listing);
    EXPECT_NE(std::string::npos, fds.find(" 0 -> ")) << fds;  // the listing is real
    EXPECT_EQ(std::string::npos, fds.find(node)) << fds;
}

}  // namespace
