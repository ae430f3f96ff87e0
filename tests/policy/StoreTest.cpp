// What an update stores: the bytes that were checked, stored before they are accepted, and
// nothing at all when they cannot be stored. Protected policies load whatever room /data has.
#include <sched.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <fstream>
#include <functional>
#include <thread>

#include "PolicyTestSupport.h"
#include "crypto/OrvPolicyFile.h"

using namespace policytest;

namespace {

using StoreTest = PolicyTest;

std::string doc(int version, const std::string& extra = "") {
    return R"({"parser":"v1.0","version":"v)" + std::to_string(version) + R"(")" + extra + "}";
}

// Makes mount changes private to this process; a reason when it cannot (no CAP_SYS_ADMIN, or
// threads already running, which unshare refuses).
const char* privateMounts() {
    static const char* reason = []() -> const char* {
        if (unshare(CLONE_NEWNS) != 0) return "cannot unshare the mount namespace";
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            return "cannot make mounts private";
        return nullptr;
    }();
    return reason;
}

// Puts a 64 KiB file system of its own on `dir`, visible to this process only; false (and the
// row named `row` reported skipped) when it cannot.
bool mountSmallFileSystem(const std::string& dir, const char* row) {
    const char* reason = privateMounts();
    if (reason == nullptr && mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=64k") != 0)
        reason = "cannot mount a tmpfs";
    if (reason != nullptr) std::cout << "[ SKIPPED  ] " << row << ": " << reason << std::endl;
    return reason == nullptr;
}

// Fills the file system holding `dir` to the last byte.
void fill(const std::string& dir) {
    int fd = open((dir + "/filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    std::string block(4096, 'f');
    while (write(fd, block.data(), block.size()) > 0) {
    }
    while (write(fd, block.data(), 1) > 0) {
    }
    close(fd);
}

// The database version an app switch brings into force.
std::string versionInForce(OrvActionManager* manager) {
    std::string dump;
    manager->dumpState(dump);
    size_t at = dump.find("PolicyDB version: ");
    return at == std::string::npos ? "" : dump.substr(at + 18, dump.find('\n', at) - at - 18);
}

class Updater {
  public:
    explicit Updater(OrvActionManager* manager) : mManager(manager) {
        std::thread([manager] { manager->waitDBUpdate(); }).detach();
    }
    OrvActionManager* mManager;
};

TEST_F(StoreTest, AnUpdateStoresExactlyTheBytesItChecked) {
    const std::string stored = mRoot / "data/orvpolicy";
    // A big document: parsing it leaves a rewrite of the file time to land before a move.
    std::string params;
    for (int i = 0; i < 20000; ++i) params += R"("p)" + std::to_string(i) + R"(":"12345678",)";
    const std::string big = doc(0, R"(,"applications":{"A":{"param":{)" + params + R"("z":"1"}}})");
    auto versioned = [&](int v) {
        std::string text = big;
        return text.replace(text.find("\"v0\""), 4, "\"v" + std::to_string(v) + "\"");
    };
    struct Row {
        const char* name;
        // Writes the offered file and returns its path; `body` is what must be stored.
        std::function<std::string(const std::string& body)> offer;
        std::function<void(const std::string& path)> whileLoading;  // may be empty
    };
    int inotifyFd = -1;
    // clang-format off
    const Row rows[] = {
        // A relative link would dangle once moved into /data.
        {"through a relative symlink", [&](const std::string& body) {
             mRoot.write("real.json", body);
             std::string link = mRoot / "link.json";
             EXPECT_EQ(0, symlink("real.json", link.c_str()));
             return link;
         }, nullptr},
        // Rewritten in place as soon as orvd has read it.
        {"rewritten after the read", [&](const std::string& body) {
             std::string path = mRoot.write("rewritten.json", body);
             inotifyFd = inotify_init1(IN_CLOEXEC);
             inotify_add_watch(inotifyFd, path.c_str(), IN_CLOSE_NOWRITE);
             return path;
         }, [&](const std::string& path) {
             char event[256];
             if (read(inotifyFd, event, sizeof(event)) > 0) {
                 int fd = open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
                 const std::string broken = R"({"parser":"v1.0","version":"v99","applications":{"A":)";
                 EXPECT_EQ(ssize_t(broken.size()), write(fd, broken.data(), broken.size()));
                 close(fd);
             }
             close(inotifyFd);
         }},
        {"from another file system", [&](const std::string& body) {
             std::string path = "/dev/shm/orvtest-policy-" + std::to_string(getpid());
             std::ofstream(path) << body;
             return path;
         }, nullptr},
    };
    // clang-format on
    OrvActionManager* manager = start(versioned(1));
    Updater updater(manager);
    int version = 1;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string body = versioned(++version);
        const std::string path = row.offer(body);
        mLog.clear();
        std::thread racer;
        if (row.whileLoading) racer = std::thread(row.whileLoading, path);
        manager->prepareUpdateDB(path.c_str());
        EXPECT_TRUE(mLog.waitFor("new DB " + path + " is prepared to update)"));
        if (racer.joinable()) racer.join();
        struct stat st;
        ASSERT_EQ(0, lstat(stored.c_str(), &st));
        EXPECT_TRUE(S_ISREG(st.st_mode));
        EXPECT_EQ(body, orvtest::readFile(stored));
        EXPECT_NE(0, access(OrvPolicyFile::storeTemp(stored.c_str()).c_str(), F_OK));
        // The offered name is gone once accepted (the link itself, not what it names).
        EXPECT_TRUE(orvtest::eventually([&] { return lstat(path.c_str(), &st) != 0; }));
        (new AppSwitch("B", 1, 2, "run", "A", 3, 4, "run"))->send(manager);
        sync(manager);
        EXPECT_EQ("v" + std::to_string(version), versionInForce(manager));
    }
}

TEST_F(StoreTest, AnUpdateThatCannotBeStoredIsRefusedAndChangesNothing) {
    const std::string data = mRoot / "data";
    const std::string stored = data + "/orvpolicy";
    // clang-format off
    const struct {
        const char* name;
        bool mounts;                          // /data becomes a small file system of its own
        std::function<void()> afterStart;     // breaks storing once v1 is in force
        const char* cause;
    } rows[] = {
        {"temporary name taken by a directory", false,
         [&] { mkdir(OrvPolicyFile::storeTemp(stored.c_str()).c_str(), 0755); }, "Is a directory"},
        {"/data full", true, [&] { fill(data); }, "No space left on device"},
        {"/data read-only", true,
         [&] { EXPECT_EQ(0, mount(nullptr, data.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr)); },
         "Read-only file system"},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        if (row.mounts && !mountSmallFileSystem(data, row.name)) continue;
        OrvActionManager* manager = start(doc(1));
        Updater updater(manager);
        row.afterStart();
        const std::string offered = mRoot.write("next.json", doc(2));
        mLog.clear();
        manager->prepareUpdateDB(offered.c_str());
        ASSERT_TRUE(mLog.waitFor("load new DB " + offered + " failed)"));
        EXPECT_EQ("failed to replace new policy file to " + stored + " (" + row.cause + ")\n" +
                      "load new DB " + offered + " failed)",
                  errors());
        EXPECT_FALSE(mLog.has("new DB " + offered + " is prepared to update)"));
        EXPECT_EQ(doc(1), orvtest::readFile(stored));
        EXPECT_EQ(doc(2), orvtest::readFile(offered));
        (new AppSwitch("B", 1, 2, "run", "A", 3, 4, "run"))->send(manager);
        sync(manager);
        EXPECT_EQ("v1", versionInForce(manager));
        if (row.mounts) umount2(data.c_str(), MNT_DETACH);
    }
}

TEST_F(StoreTest, AProtectedPolicyLoadsWithAFullDataAndNoPlainTextOutlivesACrash) {
    const std::string data = mRoot / "data";
    const std::string intermediate = data + "/___orvtemp";
    const std::string plain = doc(3, R"(,"applications":{"A":{"param":{"p":"secret"}}})");
    // clang-format off
    const struct {
        const char* name;
        bool full;         // /data is a full file system of its own
        bool staleLeft;    // a crash after decryption left the plain text behind
        bool isProtected;  // the policy in /data is protected (else plain: nothing decrypts)
    } rows[] = {
        {"room in /data", false, false, true},
        {"full /data", true, false, true},
        {"plain text left by a crash", false, true, false},
    };
    // clang-format on
    unsigned seed = 3;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        if (row.full && !mountSmallFileSystem(data, row.name)) continue;
        mRoot.write("data/orvpolicy", row.isProtected ? protect(plain, seed++) : plain);
        if (row.staleLeft) mRoot.write("data/___orvtemp", plain);
        if (row.full) fill(data);
        mLog.clear();
        auto* manager = new OrvActionManager();  // its queue thread runs on: never freed
        ASSERT_TRUE(manager->init());
        EXPECT_TRUE(mLog.has("DB load (" + data + "/orvpolicy)"));
        std::string value;
        EXPECT_TRUE(manager->findAppParam("A", "p", value));
        EXPECT_EQ("secret", value);
        EXPECT_NE(0, access(intermediate.c_str(), F_OK));
        if (row.full) umount2(data.c_str(), MNT_DETACH);
    }
}

}  // namespace
