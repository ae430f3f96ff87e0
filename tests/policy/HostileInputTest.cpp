// Policy files and documents written to hurt: special files, huge files, reference and group
// loops, a hostile PATH, and queries racing the action thread.
#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "PolicyTestSupport.h"

using namespace policytest;

namespace {

using HostileInputTest = PolicyTest;
using orvtest::eventually;

const char kDoc[] = R"({"parser":"v1.0","version":"v1","applications":{"A":{"param":{"p":"1"}}}})";

// Bytes this process has read so far, by the kernel's count (0 where it keeps none).
long long bytesRead() {
    std::string io = orvtest::readFile("/proc/self/io");
    size_t at = io.find("rchar: ");
    return at == std::string::npos ? 0 : atoll(io.c_str() + at + 7);
}

// Loads `path` on another thread; a load still blocked after the wait fails the test, and a
// writer then releases a reader stuck in open() on a FIFO so that the test can end.
OrvActionDB* loadUnblocked(OrvActionManager& manager, const std::string& path) {
    std::atomic<bool> done{false};
    OrvActionDB* db = nullptr;
    std::thread loader([&] {
        db = manager.loadDBFromfile(path.c_str());
        done = true;
    });
    EXPECT_TRUE(eventually([&] { return done.load(); })) << path << " blocked the load";
    if (!done) {
        int fd = open(path.c_str(), O_WRONLY | O_NONBLOCK);
        if (fd >= 0) close(fd);
    }
    loader.join();
    return db;
}

TEST_F(HostileInputTest, SpecialAndOversizedFilesAreRefusedWithoutBlockingOrReading) {
    mkfifo((mRoot / "fifo").c_str(), 0600);
    mkdir((mRoot / "dir").c_str(), 0755);
    // Sparse: only the declared size counts, nothing is read.
    auto sized = [&](const char* name, off_t size) {
        std::string path = mRoot.write(name, "");
        EXPECT_EQ(0, truncate(path.c_str(), size));
        return path;
    };
    const struct {
        std::string path, reason;
    } rows[] = {
        {mRoot / "dir", "not a regular file"},   {mRoot / "fifo", "not a regular file"},
        {"/dev/zero", "not a regular file"},     {sized("big", (16 << 20) + 1), "too large"},
        {sized("huge", 100 << 20), "too large"},
    };
    OrvActionManager manager;
    for (const auto& row : rows) {
        mLog.clear();
        const long long before = bytesRead();
        OrvActionDB* db = loadUnblocked(manager, row.path);
        EXPECT_EQ(nullptr, db) << row.path;
        delete db;
        EXPECT_LT(bytesRead() - before, 1 << 20) << row.path;
        EXPECT_TRUE(mLog.has(row.path + " is not good (" + row.reason + ")")) << row.path;
        EXPECT_TRUE(mLog.has("decrypt DB " + row.path + " failed")) << row.path;
    }
    // A missing file keeps its plain line.
    mLog.clear();
    EXPECT_EQ(nullptr, manager.loadDBFromfile((mRoot / "missing").c_str()));
    EXPECT_TRUE(mLog.has(mRoot / "missing" + " is not good"));
}

TEST_F(HostileInputTest, InitFallsBackWhenTheWritablePolicyIsADirectory) {
    mkdir((mRoot / "data/orvpolicy").c_str(), 0755);
    mRoot.write("system/etc/orvpolicy", kDoc);
    auto* manager = new OrvActionManager();  // its queue thread runs on: never freed
    EXPECT_TRUE(manager->init());
    EXPECT_TRUE(mLog.has("DB load (" + mRoot / "system/etc/orvpolicy" + ")"));
}

TEST_F(HostileInputTest, UpdatesNamingSpecialFilesKeepTheDatabaseAndTheDaemonAnswering) {
    OrvActionManager* manager = start(kDoc);
    std::thread([manager] { manager->waitDBUpdate(); }).detach();
    mkfifo((mRoot / "fifo").c_str(), 0600);
    const std::string paths[] = {mRoot / "fifo", mRoot.path(), "/dev/zero"};
    for (const auto& path : paths) manager->prepareUpdateDB(path.c_str());
    for (const auto& path : paths) {
        EXPECT_TRUE(mLog.waitFor("load new DB " + path + " failed)")) << path;
    }
    // App switches are still served, and the database in force and its file stay as they were.
    (new AppSwitch("B", 1, 2, "run", "A", 3, 4, "run"))->send(manager);
    sync(manager);
    std::string value;
    EXPECT_TRUE(manager->findAppParam("A", "p", value));
    EXPECT_EQ(kDoc, orvtest::readFile(mRoot / "data/orvpolicy"));
}

// "policy_group" with `n` groups g0..g<n-1>, each calling the next `calls` times; the last is
// empty.
std::string groupChain(int n, int calls) {
    std::string out = R"("policy_group":{)";
    for (int i = 0; i < n; ++i) {
        std::string call = R"({"method":"group","path":"g)" + std::to_string(i + 1) + R"("})";
        out += "\"g" + std::to_string(i) + "\":[";
        for (int c = 0; c < calls && i + 1 < n; ++c) out += (c ? "," : "") + call;
        out += i + 1 < n ? "]," : "]}";
    }
    return out;
}

TEST_F(HostileInputTest, LoopsAndUnboundedGroupsAreRefusedAtLoad) {
    // clang-format off
    const struct { const char* name; std::string doc; std::string line; } rows[] = {
        {"param", R"("applications":{"com.a":{"param":{"reference":"com.b"}},
                     "com.b":{"param":{"reference":"com.a"}}})",
         "param reference cycle: com.a -> com.b -> com.a"},
        {"param self", R"("applications":{"com.a":{"param":{"reference":"com.a"}}})",
         "param reference cycle: com.a -> com.a"},
        {"action", R"("applications":{"x":{"action":{"reference":"com.a"}},
                      "com.a":{"action":{"reference":"com.b"}},
                      "com.b":{"action":{"reference":"com.c"}},"com.c":{"action":{"reference":"com.a"}}})",
         "action reference cycle: com.a -> com.b -> com.c -> com.a"},
        {"group", R"("policy_group":{"g":[{"method":"group","path":"h"}],
                     "h":[{"method":"xfs","path":"/x"},{"method":"group","path":"g"}]})",
         "group cycle: g -> h -> g"},
        {"group self", R"("policy_group":{"g":[{"method":"group","path":"g"}]})",
         "group cycle: g -> g"},
        // On a device's 1 MiB thread stack the walk of such a chain overflowed.
        {"group chain 5019 deep", groupChain(5019, 1),
         "group nesting too deep: g0 -> g1 -> g2 -> ... -> g5016 -> g5017 -> g5018 (5019 levels, limit 256)"},
        {"group chain 257 deep", groupChain(257, 1),
         "group nesting too deep: g0 -> g1 -> g2 -> ... -> g254 -> g255 -> g256 (257 levels, limit 256)"},
        // Each group running the next twice: 2^17 - 2 methods from the top one.
        {"groups doubling 17 levels", groupChain(17, 2),
         "action set policy_group.g0 expands to 131070 methods (limit 100000)"},
        // 2^40 - 2: counted, not run.
        {"groups doubling 40 levels", groupChain(40, 2),
         "action set policy_group.g0 expands to 1099511627774 methods (limit 100000)"},
        // One set over the limit though no group is.
        {"set calling a large group twice", groupChain(16, 2) +
             R"(,"default":{"action":{"reset":{"policy":[{"method":"group","path":"g0"},{"method":"group","path":"g0"}]}}})",
         "action set default.action.reset.policy expands to 131070 methods (limit 100000)"},
    };
    // clang-format on
    OrvActionManager manager;
    for (const auto& row : rows) {
        mLog.clear();
        std::string path =
            mRoot.write("p.json", R"({"parser":"v1.0","version":"v1",)" + row.doc + "}");
        OrvActionDB* db = manager.loadDBFromfile(path.c_str());
        EXPECT_EQ(nullptr, db) << row.name;
        delete db;
        EXPECT_EQ(1, mLog.count(row.line + " in " + path)) << row.name;
    }
}

TEST_F(HostileInputTest, GroupsAtTheBoundsLoadAndRun) {
    const std::string fifo = makeFifo();
    // 256 levels deep, and 2^16 - 2 methods from one set; the deepest group writes a mark.
    for (auto [levels, calls] : {std::pair{256, 1}, std::pair{16, 2}}) {
        std::string groups = groupChain(levels, calls);
        const std::string last = "\"g" + std::to_string(levels - 1) + "\":[";
        groups.replace(groups.find(last), last.size(), last + xfs(fifo, "."));
        OrvActionManager* manager = start(R"({"parser":"v1.0","version":"v1",)" + groups +
                                          R"(,"applications":{"A":{"action":{"run":{"on_enter":[
            {"method":"group","path":"g0"}]}}}}})");
        (new AppSwitch("B", 1, 2, "run", "A", 3, 4, "run"))->send(manager);
        sync(manager);
        EXPECT_EQ(std::string(size_t(1) << (levels == 256 ? 0 : levels - 1), '.'), drainFifo());
    }
}

TEST_F(HostileInputTest, AcyclicChainsLoadAndResolve) {
    // A long chain of references: resolved in a loop, so no stack depth goes with its length.
    std::string apps;
    const int kChain = 20000;
    for (int i = 0; i < kChain; ++i)
        apps += "\"a" + std::to_string(i) + "\":{\"param\":{\"reference\":\"a" +
                std::to_string(i + 1) + "\"}},";
    apps += "\"a" + std::to_string(kChain) + R"(":{"param":{"p":"end"}})";
    const std::string groups = R"("policy_group":{"g":[{"method":"group","path":"h"},
        {"method":"group","path":"h"}],"h":[]})";
    OrvActionManager* manager = start(R"({"parser":"v1.0","version":"v1",)" + groups +
                                      R"(,"applications":{)" + apps + "}}");
    std::string value;
    EXPECT_TRUE(manager->findAppParam("a0", "p", value));
    EXPECT_EQ("end", value);
    EXPECT_FALSE(manager->findAppParam("a0", "q", value));
    // Sections of the wrong type hold no loop (the executor reports them when it meets them).
    OrvActionManager loader;
    for (const char* odd : {R"("applications":[1],"policy_group":"g")",
                            R"("applications":"x","policy_group":[{"method":"group"}])"}) {
        std::string path =
            mRoot.write("odd.json", std::string(R"({"parser":"v1.0","version":"v1",)") + odd + "}");
        OrvActionDB* db = loader.loadDBFromfile(path.c_str());
        EXPECT_NE(nullptr, db) << odd;
        delete db;
    }
}

TEST_F(HostileInputTest, TheUpdateMovesTheFileWithoutRunningAnyProgram) {
    // An "mv" first in PATH would be run by a shell command; the move must not need one.
    const std::string bin = mRoot / "bin";
    mRoot.write("bin/mv", "#!/bin/sh\ntouch " + mRoot / "canary" + "\nexec /bin/mv \"$@\"\n");
    chmod((bin + "/mv").c_str(), 0755);
    const std::string oldPath = getenv("PATH") ? getenv("PATH") : "";
    setenv("PATH", (bin + ":" + oldPath).c_str(), 1);
    OrvActionManager* manager = start(kDoc);
    std::thread([manager] { manager->waitDBUpdate(); }).detach();
    const std::string next = R"({"parser":"v1.0","version":"v2"})";
    std::string path = mRoot.write("next policy", next);
    manager->prepareUpdateDB(path.c_str());
    EXPECT_TRUE(mLog.waitFor("new DB " + path + " is prepared to update)"));
    // The offered file is removed after the log line: wait for that.
    EXPECT_TRUE(eventually([&] { return access(path.c_str(), F_OK) != 0; }));
    setenv("PATH", oldPath.c_str(), 1);
    EXPECT_NE(0, access(path.c_str(), F_OK));
    EXPECT_NE(0, access((mRoot / "canary").c_str(), F_OK));
}

// Queries read the node they find while the action thread's lookups for the same application
// insert members into it; run under ThreadSanitizer this is where a race would show.
TEST_F(HostileInputTest, QueriesDoNotRaceTheActionThread) {
    OrvActionManager* manager = start(R"({"parser":"v1.0","version":"v1","applications":{
        "A":{"param":{"reference":"B"}},"B":{"param":{"p":"b"}}}})");
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        std::string value;
        while (!stop) {
            manager->findApp("C");
            manager->findAppParam("A", "p", value);
            manager->findAppParam("C", "p", value);
        }
    });
    // Records keep state names by pointer: these must outlive the queue.
    static std::vector<std::string> states;
    for (int i = 0; i < 200; ++i) states.push_back("s" + std::to_string(i));
    for (int i = 0; i < 200; ++i)
        (new StateChange("run", states[i].c_str(), i % 2 ? "A" : "C", 1, 2))->send(manager);
    sync(manager);
    stop = true;
    reader.join();
    std::string value;
    EXPECT_TRUE(manager->findAppParam("A", "p", value));
    EXPECT_EQ("b", value);
}

}  // namespace
