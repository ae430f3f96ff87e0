#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>

#include "support/OrvTestSupport.h"

namespace {

std::string get(const char* key, const char* def = nullptr) {
    char value[PROPERTY_VALUE_MAX + 16];
    memset(value, '#', sizeof(value));
    int len = property_get(key, value, def);
    EXPECT_EQ(strlen(value), size_t(len));
    for (size_t i = PROPERTY_VALUE_MAX; i < sizeof(value); ++i) EXPECT_EQ('#', value[i]);
    return value;
}

std::string stored(const orvtest::TempRoot& root, const std::string& name) {
    return orvtest::readFile(root / ("dev/__properties__/" + name));
}

TEST(Properties, NamesAcceptedAndRefused) {
    orvtest::TempRoot root;
    for (const char* name : {"sys.orv.enable", "A-Z_a-z.0-9@host:port", "x"}) {
        EXPECT_EQ(0, property_set(name, "v")) << name;
        EXPECT_EQ("v", stored(root, name));
        EXPECT_EQ("v", get(name, "dflt"));
    }
    for (const char* name :
         {"", ".hidden", "trailing.", "a..b", "..", ".", "a/b", "/etc/passwd",
          "../../../tmp/escape", "sys orv", "tab\there", "sys.orv*", "caf\xc3\xa9", "new\nline"}) {
        EXPECT_EQ(-1, property_set(name, "v")) << '"' << name << '"';
        EXPECT_EQ("dflt", get(name, "dflt")) << name;
    }
    EXPECT_EQ(-1, property_set(nullptr, "v"));
    for (std::string p : {root / "tmp/escape", std::string("/tmp/escape")})
        EXPECT_FALSE(std::filesystem::exists(p)) << p;
}

TEST(Properties, ValueLimitsDefaultsAndReadOnly) {
    orvtest::TempRoot root;
    std::string v91(91, 'a'), v92(92, 'b');
    EXPECT_EQ(0, property_set("len.ok", v91.c_str()));
    EXPECT_EQ(-1, property_set("len.ok", v92.c_str()));
    EXPECT_EQ(v91, get("len.ok")) << "a refused set leaves the old value";
    EXPECT_EQ(-1, property_set("len.new", v92.c_str()));
    EXPECT_EQ("", get("len.new"));
    root.write("dev/__properties__/big.value", std::string(500, 'z'));
    EXPECT_EQ(std::string(91, 'z'), get("big.value"));
    EXPECT_EQ(std::string(91, 'd'), get("unset.prop", std::string(200, 'd').c_str()));

    EXPECT_EQ(0, property_set("empty.prop", ""));
    EXPECT_EQ("", stored(root, "empty.prop"));
    EXPECT_EQ("fallback", get("empty.prop", "fallback"));

    // A directory or a symlink in the store is no value.
    ASSERT_EQ(0, mkdir((root / "dev/__properties__/a.dir").c_str(), 0755));
    EXPECT_EQ("d", get("a.dir", "d"));
    root.write("outside", "secret");
    ASSERT_EQ(0, symlink((root / "outside").c_str(), (root / "dev/__properties__/a.link").c_str()));
    EXPECT_EQ("d", get("a.link", "d"));

    EXPECT_EQ(0, property_set("ro.orv.empty", ""));
    EXPECT_EQ(0, property_set("ro.orv.serial", "abc")) << "an empty ro. property may be set";
    EXPECT_EQ(-1, property_set("ro.orv.serial", "def"));
    EXPECT_EQ(-1, property_set("ro.orv.serial", "abc"));
    EXPECT_EQ("abc", get("ro.orv.serial"));
    for (const char* name : {"rox.orv", "sys.ro.orv"})
        EXPECT_EQ(0, property_set(name, "1") + property_set(name, "2")) << name;
}

TEST(Properties, SetIsAtomicForConcurrentReaders) {
    orvtest::TempRoot root;
    const std::string a(91, 'a'), b(7, 'b');
    ASSERT_EQ(0, property_set("atomic.prop", a.c_str()));
    std::atomic<bool> done{false};
    std::atomic<int> torn{0}, reads{0};
    std::thread reader([&] {
        for (; !done; ++reads) {
            std::string v = get("atomic.prop", "MISSING");
            if (v != a && v != b) ++torn;
        }
    });
    for (int i = 0; i < 2000; ++i)
        EXPECT_EQ(0, property_set("atomic.prop", (i % 2 ? a : b).c_str()));
    // A busy machine may not have run the reader yet.
    EXPECT_TRUE(orvtest::eventually([&] { return reads > 0; }));
    done = true;
    reader.join();
    EXPECT_EQ(0, torn.load());
    for (const auto& entry : std::filesystem::directory_iterator(root / "dev/__properties__"))
        EXPECT_NE(0u, entry.path().filename().string().rfind(".set.", 0))
            << "temporary file left behind: " << entry.path();
}

// A set of the value already stored leaves the file as it is; anything else replaces it.
TEST(Properties, SettingTheStoredValueAgainKeepsTheFile) {
    orvtest::TempRoot root;
    auto inode = [&] {
        struct stat st = {};
        stat((root / "dev/__properties__/same.prop").c_str(), &st);
        return st.st_ino;
    };
    ASSERT_EQ(0, property_set("same.prop", "x"));
    const ino_t first = inode();
    EXPECT_EQ(0, property_set("same.prop", "x"));
    EXPECT_EQ(first, inode());
    EXPECT_EQ(0, property_set("same.prop", "y"));
    EXPECT_NE(first, inode());
    EXPECT_EQ("y", stored(root, "same.prop"));
    // Written by hand with a line feed: not the same bytes, so the set writes.
    root.write("dev/__properties__/same.prop", "y\n");
    EXPECT_EQ(0, property_set("same.prop", "y"));
    EXPECT_EQ("y", stored(root, "same.prop"));
    // Longer than a value can be: a set of its first 91 bytes is no match either.
    root.write("dev/__properties__/same.prop", std::string(91, 'a') + "tail");
    EXPECT_EQ(0, property_set("same.prop", std::string(91, 'a').c_str()));
    EXPECT_EQ(std::string(91, 'a'), stored(root, "same.prop"));
}

// Readers keep values between changes; every way a value can change under them shows at once.
TEST(Properties, ReadsFollowSetsFromAnyProcessAndAFreshStore) {
    orvtest::TempRoot root;
    EXPECT_EQ("absent", get("cache.prop", "absent"));
    ASSERT_EQ(0, property_set("cache.prop", "1"));
    EXPECT_EQ("1", get("cache.prop"));
    EXPECT_EQ("1", get("cache.prop")) << "an unchanged value reads the same";

    pid_t child = fork();
    if (child == 0) _exit(property_set("cache.prop", "from-child") == 0 ? 0 : 1);
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_EQ(0, status);
    EXPECT_EQ("from-child", get("cache.prop")) << "a set in another process";

    // The whole store removed and made again, or moved aside and made again by another
    // process: the next read sees the new store.
    std::filesystem::remove_all(root / "dev/__properties__");
    ASSERT_EQ(0, property_set("other.prop", "x"));
    EXPECT_EQ("gone", get("cache.prop", "gone"));
    ASSERT_EQ(0, property_set("cache.prop", "2"));
    EXPECT_EQ("2", get("cache.prop"));
    std::filesystem::rename(root / "dev/__properties__", root / "dev/old");
    child = fork();
    if (child == 0) _exit(property_set("cache.prop", "3") == 0 ? 0 : 1);
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_EQ(0, status);
    EXPECT_EQ("3", get("cache.prop"));

    // Written by hand into its file, as the store allows: seen at the very next read, also
    // when two writes of the same size follow each other within one clock tick.
    for (const char* v : {"hand-1", "hand-2", "hand-3"}) {
        root.write("dev/__properties__/cache.prop", v);
        EXPECT_EQ(v, get("cache.prop"));
    }
    // A child that reads shares nothing that could hide a change from its parent.
    child = fork();
    if (child == 0) _exit(get("cache.prop") == "hand-3" ? 0 : 1);
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    root.write("dev/__properties__/cache.prop", "hand-4");
    EXPECT_EQ("hand-4", get("cache.prop"));
    std::filesystem::remove(root / "dev/__properties__/cache.prop");
    EXPECT_EQ("removed", get("cache.prop", "removed"));

    // A store that cannot be made: the set fails with one error line and the value stays unset.
    orvtest::TempRoot blocked;
    blocked.write("dev/__properties__", "a file, not a directory");
    orvtest::LogCapture log;
    EXPECT_EQ(-1, property_set("cache.prop", "5"));
    EXPECT_EQ(1, log.countContaining("cannot create the property store"));
    EXPECT_EQ("none", get("cache.prop", "none"));

    // Another root is another store.
    orvtest::TempRoot second;
    EXPECT_EQ("none", get("cache.prop", "none"));
    ASSERT_EQ(0, property_set("cache.prop", "4"));
    EXPECT_EQ("4", get("cache.prop"));
}

}  // namespace
