// Loading: version rules, fallbacks, protected files.
#include <tuple>

#include "PolicyTestSupport.h"

namespace {

using policytest::protect;
using LoadTest = policytest::PolicyTest;

TEST_F(LoadTest, VersionRulesAndUnreadableFiles) {
    // Document ("": no file at all), accepted, part of a logged line (% is the file's path).
    // clang-format off
    const std::tuple<std::string, bool, const char*> rows[] = {
        {R"({"parser":"v1.0","version":"v1"})", true, "curDBVersion:0.00, loadDBVersion:1.00"},
        {R"({"parser":"1.5","version":"v1"})", true, "minSupportedParserVersion:0.50, ParserVersion:1.00"},
        {R"({"parser":"v0.9","version":"v0.01"})", true, "curDBVersion:0.00, loadDBVersion:0.01"},
        {R"({"parser":"v1","version":"v2.5"})", true, "minSupportedParserVersion:1.00, ParserVersion:1.00"},
        {R"({"parser":"v1.0","version":"vnan"})", true, "curDBVersion:0.00, loadDBVersion:nan"},
        {R"({"parser":"v1.5","version":"v1"})", false, "Parser Version is too old"},
        {R"({"version":"v1"})", false, "Parser Version is too old"},
        {R"({"parser":"v1.0"})", false, "DB Version is too old"},
        {R"({"parser":"v1.0","version":"v0"})", false, "DB Version is too old"},
        {R"({"parser":"v1.0","version":3})", false, "DB Version is too old"},
        {R"({"parser":"v1.0","version":12})", true, "curDBVersion:0.00, loadDBVersion:2.00"},
        {"", false, "% is not good"},
        {R"({"parser":)", false, "Failed to parse % before decrypt:\n* Line 1"},
        // Deep nesting is refused before the reader sees it.
        {std::string(5000, '[') + std::string(5000, ']'), false, "Failed to parse % before decrypt:\n"},
    };
    // clang-format on
    OrvActionManager manager;
    for (const auto& [doc, accepted, part] : rows) {
        std::string path = doc.empty() ? mRoot / "missing" : mRoot.write("p.json", doc);
        std::string line = part;
        if (size_t at = line.find('%'); at != std::string::npos) line.replace(at, 1, path);
        mLog.clear();
        OrvActionDB* db = manager.loadDBFromfile(path.c_str());
        EXPECT_EQ(accepted, db != nullptr) << doc;
        EXPECT_EQ(1, mLog.countContaining(line)) << doc;
        delete db;
    }
}

TEST_F(LoadTest, ProtectedFileLoadsThroughDecryptionAndEnablesProgram) {
    const std::string canary = mRoot / "ran";
    OrvActionManager* manager = start(protect(policytest::marks(R"({"parser":"v1.0","version":"v7",
        "default":{"action":{"reset":{"policy":[{"method":"program","path":"printf","type":"array",
            "value":[{"type":"string","value":"%s"},{"type":"var","value":"PID"},
                     {"type":"string","value":">#"}]}]}}}})",
                                                                "", canary),
                                              7));
    const std::string path = mRoot / "data/orvpolicy";
    // Tried as plain JSON first, then decrypted.
    EXPECT_EQ(1, mLog.countContaining("Failed to parse " + path + " before decrypt:"));
    EXPECT_TRUE(mLog.has("decrypt DB " + path + " success"));
    EXPECT_TRUE(mLog.has("DB load (" + path + ")"));
    EXPECT_NE(0, access((mRoot / "data/___orvtemp").c_str(), F_OK));  // deleted after parsing
    // The policy reset has no pid, so "PID" fails and nothing runs; an app switch has one.
    EXPECT_NE(0, access(canary.c_str(), F_OK));
    (new policytest::AppSwitch("A", 1, 2, "run", "B", 77, 3, "launch"))->send(manager);
    sync(manager);
    EXPECT_EQ("77", orvtest::readFile(canary));
    std::string dump;
    manager->dumpState(dump);
    EXPECT_NE(std::string::npos, dump.find("   PolicyDB Encrypted : 1\n"));
}

TEST_F(LoadTest, InitRefusesATamperedFileAndFallsBackToTheBuiltinOne) {
    std::string text = protect(R"({"parser":"v1.0","version":"v1"})", 11);
    // Shift both characters of one pair so that a decoded body byte changes.
    size_t i = text.size() / 2 & ~size_t(1);
    for (size_t k = i; k < i + 2; ++k)
        text[k] = static_cast<char>(text[k] == '~' ? ' ' : text[k] + 1);
    mRoot.write("data/orvpolicy", text);
    OrvActionManager manager;
    EXPECT_FALSE(manager.init());
    EXPECT_TRUE(mLog.has("decrypt DB " + mRoot / "data/orvpolicy" + " failed"));
    EXPECT_NE(0, access((mRoot / "data/___orvtemp").c_str(), F_OK));
    mRoot.write("system/etc/orvpolicy", R"({"parser":"v1.0","version":"v1"})");
    start(text);
    EXPECT_TRUE(mLog.has("DB load (" + mRoot / "system/etc/orvpolicy" + ")"));
}

}  // namespace
