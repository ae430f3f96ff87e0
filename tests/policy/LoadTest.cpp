// Loading: version rules, fallbacks, protected files.
#include "PolicyTestSupport.h"
#include "tools/codec/OrvPolicyEncoder.h"

namespace {

class LoadTest : public policytest::PolicyTest {};

TEST_F(LoadTest, VersionRules) {
    struct Row {
        const char* versions;  // members put in front of an otherwise empty document
        bool accepted;
        const char* line;  // the info line with the numbers, or the refusal
    };
    const Row rows[] = {
        {R"("parser":"v1.0","version":"v1")", true, "curDBVersion:0.00, loadDBVersion:1.00"},
        {R"("parser":"v1","version":"v2.5")", true, "curDBVersion:0.00, loadDBVersion:2.50"},
        {R"("parser":"1.5","version":"v1")", true,
         "minSupportedParserVersion:0.50, ParserVersion:1.00"},
        {R"("parser":"v0.9","version":"v0.01")", true, "curDBVersion:0.00, loadDBVersion:0.01"},
        {R"("parser":"v1.0","version":"vnan")", true, "curDBVersion:0.00, loadDBVersion:nan"},
        {R"("parser":"v1.5","version":"v1")", false, "Parser Version is too old"},
        {R"("version":"v1")", false, "Parser Version is too old"},
        {R"("parser":"v1.0")", false, "DB Version is too old"},
        {R"("parser":"v1.0","version":"v0")", false, "DB Version is too old"},
        {R"("parser":"v1.0","version":"vx")", false, "DB Version is too old"},
        {R"("parser":"v1.0","version":3)", false, "DB Version is too old"},
    };
    OrvActionManager manager;
    for (const Row& row : rows) {
        std::string path = mRoot.write("p.json", std::string("{") + row.versions + "}");
        mLog.clear();
        OrvActionDB* db = manager.loadDBFromfile(path.c_str());
        EXPECT_EQ(row.accepted, db != nullptr) << row.versions;
        EXPECT_TRUE(mLog.has(row.line)) << row.versions;
        delete db;
    }
}

TEST_F(LoadTest, UnreadableFilesAreRefusedOnBothPaths) {
    OrvActionManager manager;
    const std::string missing = mRoot / "missing";
    EXPECT_EQ(nullptr, manager.loadDBFromfile(missing.c_str()));
    EXPECT_EQ(
        (std::vector<std::string>{missing + " is not good", "decrypt DB " + missing + " failed"}),
        errors());
    mLog.clear();
    std::string bad = mRoot.write("bad", "{\"parser\":");
    EXPECT_EQ(nullptr, manager.loadDBFromfile(bad.c_str()));
    auto errs = errors();
    ASSERT_EQ(2u, errs.size());
    EXPECT_EQ(0u, errs[0].find("Failed to parse " + bad + " before decrypt:\n* Line 1"));
    EXPECT_EQ("decrypt DB " + bad + " failed", errs[1]);

    // Deep nesting is refused before the reader sees it.
    mLog.clear();
    std::string deep = mRoot.write("deep", std::string(5000, '[') + std::string(5000, ']'));
    EXPECT_EQ(nullptr, manager.loadDBFromfile(deep.c_str()));
    EXPECT_EQ(1, mLog.countContaining("Failed to parse " + deep + " before decrypt:\n"));
}

TEST_F(LoadTest, InitFallsBackToTheBuiltinFile) {
    mRoot.write("system/etc/orvpolicy", R"({"parser":"v1.0","version":"v1"})");
    OrvActionManager* manager = start(R"({"parser":"v9.0","version":"v5"})");
    EXPECT_TRUE(mLog.has("Parser Version is too old"));
    EXPECT_TRUE(mLog.has("DB load (" + mRoot / "system/etc/orvpolicy" + ")"));
    std::string dump;
    manager->dumpState(dump);
    EXPECT_NE(std::string::npos, dump.find("PolicyDB version: v1\n"));
}

TEST_F(LoadTest, ProtectedFileLoadsThroughDecryptionAndEnablesProgram) {
    const std::string canary = mRoot / "ran";
    const std::string json = R"({"parser":"v1.0","version":"v7",
        "default":{"action":{"reset":{"policy":[
            {"method":"program","path":"printf","type":"array",
             "value":[{"type":"string","value":"%s"},{"type":"var","value":"PID"},
                      {"type":"string","value":">)" +
                             canary + R"("}]}]}}}})";
    std::string text, error;
    OrvProtectOptions opts;
    opts.rngSeed = 7;
    ASSERT_TRUE(orvProtectPolicy(json, opts, text, &error)) << error;
    mRoot.write("data/orvpolicy", text);
    auto* manager = new OrvActionManager();
    policytest::keptManagers().push_back(manager);
    ASSERT_TRUE(manager->init());

    const std::string path = mRoot / "data/orvpolicy";
    auto texts = mLog.texts();
    auto at = [&](const std::string& prefix) {
        for (size_t i = 0; i < texts.size(); ++i)
            if (texts[i].compare(0, prefix.size(), prefix) == 0) return static_cast<int>(i);
        return -1;
    };
    int parseFail = at("Failed to parse " + path + " before decrypt:");
    int decrypted = at("decrypt DB " + path + " success");
    ASSERT_GE(parseFail, 0);
    EXPECT_GT(decrypted, parseFail);
    EXPECT_TRUE(mLog.has("DB load (" + path + ")"));
    EXPECT_NE(0, access((mRoot / "data/___orvtemp").c_str(), F_OK));  // deleted after parsing
    // The policy reset ran the program: the record of the reset has no pid, so "PID" fails
    // silently and nothing runs; an app switch with a pid runs it.
    EXPECT_NE(0, access(canary.c_str(), F_OK));
    (new OrvActionManager::OrvAppChangeAction("A", 1, 2, "run", "B", 77, 3, "launch"))->send(manager);
    sync(manager);
    EXPECT_EQ("77", orvtest::readFile(canary));
    std::string dump;
    manager->dumpState(dump);
    EXPECT_NE(std::string::npos, dump.find("   PolicyDB Encrypted : 1\n"));
}

TEST_F(LoadTest, TamperedProtectedFileIsRefused) {
    std::string text, error;
    OrvProtectOptions opts;
    opts.rngSeed = 11;
    ASSERT_TRUE(orvProtectPolicy(R"({"parser":"v1.0","version":"v1"})", opts, text, &error));
    // Change one character so that a decoded body byte changes: shift both of its pair.
    size_t i = text.size() / 2;
    i -= i % 2;
    for (size_t k = i; k < i + 2; ++k)
        text[k] = static_cast<char>(text[k] == '~' ? ' ' : text[k] + 1);
    mRoot.write("data/orvpolicy", text);
    OrvActionManager manager;
    EXPECT_FALSE(manager.init());
    EXPECT_TRUE(mLog.has("decrypt DB " + mRoot / "data/orvpolicy" + " failed"));
    EXPECT_NE(0, access((mRoot / "data/___orvtemp").c_str(), F_OK));
}

}  // namespace
