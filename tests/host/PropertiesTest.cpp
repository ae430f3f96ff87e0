#include <cutils/properties.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <string>
#include <thread>

#include "support/OrvTestSupport.h"

namespace {

std::string get(const char* key, const char* def = nullptr) {
    char value[PROPERTY_VALUE_MAX];
    memset(value, 'X', sizeof(value));
    int len = property_get(key, value, def);
    EXPECT_EQ(strlen(value), static_cast<size_t>(len));
    return value;
}

std::string storeFile(const orvtest::TempRoot& root, const std::string& name) {
    return root / ("dev/__properties__/" + name);
}

TEST(Properties, NamesAcceptedAndRefused) {
    orvtest::TempRoot root;
    struct Case {
        const char* name;
        bool ok;
    } cases[] = {
        {"sys.orv.enable", true},
        {"sys.orv.debug.daemon", true},
        {"A-Z_a-z.0-9@host:port", true},
        {"x", true},
        {"", false},
        {".hidden", false},
        {"trailing.", false},
        {"a..b", false},
        {"..", false},
        {".", false},
        {"a/b", false},
        {"/etc/passwd", false},
        {"../../../tmp/escape", false},
        {"sys orv", false},
        {"tab\there", false},
        {"sys.orv*", false},
        {"caf\xc3\xa9", false},
        {"new\nline", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.ok ? 0 : -1, property_set(c.name, "v")) << '"' << c.name << '"';
        if (c.ok) {
            EXPECT_EQ("v", orvtest::readFile(storeFile(root, c.name)));
            EXPECT_EQ("v", get(c.name));
        } else {
            EXPECT_EQ("dflt", get(c.name, "dflt")) << c.name;
        }
    }
    EXPECT_EQ(-1, property_set(nullptr, "v"));
    // Nothing escaped the store.
    struct stat st;
    EXPECT_NE(0, stat((root.path() + "/tmp/escape").c_str(), &st));
    EXPECT_NE(0, stat("/tmp/escape", &st));
}

TEST(Properties, ValueLengthLimit) {
    orvtest::TempRoot root;
    std::string v91(91, 'a'), v92(92, 'b');
    EXPECT_EQ(0, property_set("len.ok", v91.c_str()));
    EXPECT_EQ(v91, get("len.ok"));
    EXPECT_EQ(-1, property_set("len.ok", v92.c_str()));
    EXPECT_EQ(v91, get("len.ok")) << "a refused set leaves the old value";
    EXPECT_EQ(-1, property_set("len.new", v92.c_str()));
    EXPECT_EQ("", get("len.new"));
}

TEST(Properties, ReadsAtMost91Bytes) {
    orvtest::TempRoot root;
    std::string big(500, 'z');
    root.write("dev/__properties__/big.value", big);
    char value[PROPERTY_VALUE_MAX + 16];
    memset(value, '#', sizeof(value));
    EXPECT_EQ(91, property_get("big.value", value, nullptr));
    EXPECT_EQ(std::string(91, 'z'), std::string(value));
    for (size_t i = PROPERTY_VALUE_MAX; i < sizeof(value); ++i) ASSERT_EQ('#', value[i]);
}

TEST(Properties, DefaultSemantics) {
    orvtest::TempRoot root;
    EXPECT_EQ("", get("unset.prop"));
    EXPECT_EQ("false", get("unset.prop", "false"));
    EXPECT_EQ("", get("unset.prop", ""));
    EXPECT_EQ(std::string(91, 'd'), get("unset.prop", std::string(200, 'd').c_str()));

    EXPECT_EQ(0, property_set("empty.prop", ""));
    EXPECT_EQ("", orvtest::readFile(storeFile(root, "empty.prop")));
    EXPECT_EQ("fallback", get("empty.prop", "fallback"));
    EXPECT_EQ("", get("empty.prop"));

    EXPECT_EQ(0, property_set("set.prop", "1"));
    EXPECT_EQ("1", get("set.prop", "fallback"));
    EXPECT_EQ("1", orvtest::readFile(storeFile(root, "set.prop"))) << "no line feed added";

    // A directory or a symlink in the store is no value.
    ASSERT_EQ(0, mkdir(storeFile(root, "a.dir").c_str(), 0755));
    EXPECT_EQ("d", get("a.dir", "d"));
    root.write("outside", "secret");
    ASSERT_EQ(0, symlink((root / "outside").c_str(), storeFile(root, "a.link").c_str()));
    EXPECT_EQ("d", get("a.link", "d"));
}

TEST(Properties, StoreCreatedOnDemandAndRootReadEachCall) {
    orvtest::TempRoot first;
    struct stat st;
    ASSERT_NE(0, stat((first / "dev/__properties__").c_str(), &st));
    EXPECT_EQ("", get("sys.orv.enable"));
    EXPECT_EQ(0, property_set("sys.orv.enable", "true"));
    EXPECT_EQ("true", get("sys.orv.enable"));
    {
        orvtest::TempRoot second;
        // Even the root's dev folder is created.
        ASSERT_EQ(0, system(("rm -rf '" + second.path() + "/dev'").c_str()));
        EXPECT_EQ("none", get("sys.orv.enable", "none"));
        EXPECT_EQ(0, property_set("sys.orv.enable", "false"));
        EXPECT_EQ("false", orvtest::readFile(storeFile(second, "sys.orv.enable")));
        setenv("ORV_ROOT", first.path().c_str(), 1);
        EXPECT_EQ("true", get("sys.orv.enable"));
    }
}

TEST(Properties, ReadOnlyOnlyOnce) {
    orvtest::TempRoot root;
    EXPECT_EQ(0, property_set("ro.orv.empty", ""));
    EXPECT_EQ(0, property_set("ro.orv.serial", "abc")) << "an empty ro. property may be set";
    EXPECT_EQ(-1, property_set("ro.orv.serial", "def"));
    EXPECT_EQ(-1, property_set("ro.orv.serial", ""));
    EXPECT_EQ(-1, property_set("ro.orv.serial", "abc"));
    EXPECT_EQ("abc", get("ro.orv.serial"));
    // Only the "ro." prefix counts.
    EXPECT_EQ(0, property_set("rox.orv", "1"));
    EXPECT_EQ(0, property_set("rox.orv", "2"));
    EXPECT_EQ(0, property_set("sys.ro.orv", "1"));
    EXPECT_EQ(0, property_set("sys.ro.orv", "2"));
}

TEST(Properties, SetIsAtomicForConcurrentReaders) {
    orvtest::TempRoot root;
    const std::string a(91, 'a'), b(7, 'b');
    ASSERT_EQ(0, property_set("atomic.prop", a.c_str()));
    std::atomic<bool> done{false};
    std::atomic<int> torn{0}, reads{0};
    std::thread reader([&] {
        while (!done.load()) {
            std::string v = get("atomic.prop", "MISSING");
            if (v != a && v != b) torn.fetch_add(1);
            reads.fetch_add(1);
        }
    });
    for (int i = 0; i < 2000; ++i)
        ASSERT_EQ(0, property_set("atomic.prop", (i % 2 ? a : b).c_str()));
    done = true;
    reader.join();
    EXPECT_EQ(0, torn.load());
    EXPECT_GT(reads.load(), 0);
    // No temporary files are left behind.
    DIR* d = opendir((root / "dev/__properties__").c_str());
    ASSERT_NE(nullptr, d);
    int entries = 0;
    while (dirent* e = readdir(d))
        if (e->d_name[0] != '.' || (strcmp(e->d_name, ".") && strcmp(e->d_name, ".."))) ++entries;
    closedir(d);
    EXPECT_EQ(1, entries);
}

}  // namespace
