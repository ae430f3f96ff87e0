// Documents of the wrong shape: one error line each, no crash, the rest still runs.
#include <sstream>

#include "PolicyTestSupport.h"

using namespace policytest;

namespace {

using MalformedTest = PolicyTest;

TEST_F(MalformedTest, WrongKindsAreLoggedAndSkipped) {
    const std::string at = "A.action.run.policy[0]";
    struct Row {
        std::string policy;  // elements before the final good method of A.run.policy
        std::string extra;   // more top-level members
        std::string error;
    };
    const std::string group = R"({"method":"group","path":"g"},)";
    // clang-format off
    const Row rows[] = {
        {"5,", "", "Invalid action (not an object) " + at},
        {R"({"path":"x"},)", "", "Invalid action (no method) " + at},
        {R"({"method":7},)", "", "Invalid action (method is not a string) " + at},
        {R"({"method":"XFS"},)", "", "Unknown method(XFS)"},
        {R"({"method":"program","path":"touch","type":"string","value":"x"},)", "", "\"program\" method only support with encrypted policy DB @" + at + "program"},
        {R"({"method":"group","path":1},)", "", "path type is not a string. (fetch " + at + "group)"},
        {group, R"(,"policy_group":{"g":{"a":1}})", "Invalid action set (not an array) " + at + "g"},
        {group, R"(,"policy_group":[1])", "Invalid policy DB: policy_group is not an object"},
        {R"({"method":"xfs","path":["p"],"type":"string","value":"v"},)", "", "path type is not a string. (fetch " + at + "xfs)"},
        {R"({"method":"prop","path":"bad name","type":"string","value":"v"},)", "", "failed to set system property bad name:v.(ret=-1) @" + at + "prop"},
    };
    // clang-format on
    const std::string out = mRoot / "out";
    for (const Row& r : rows) {
        mRoot.write("out", "");
        auto db = parseDB(R"({"applications":{"A":{"action":{"run":{"policy":[)" + r.policy +
                          xfs(out, "ok") + "]}}}}" + r.extra + "}");
        OrvActionManager::OrvAction action("launch", "run", "A", 1, 2);
        mLog.clear();
        db->executePolicyAction(&action);
        EXPECT_EQ(r.error, errors()) << r.policy << r.extra;
        EXPECT_EQ("ok", orvtest::readFile(out)) << r.policy << r.extra;
    }
}

TEST_F(MalformedTest, WrongShapesAboveTheSetsDoNotCrash) {
    // clang-format off
    const std::pair<const char*, const char*> rows[] = {
        {R"(["not", "an", "object"])", "Invalid policy DB: (root) is not an object"},
        {R"({"applications":[1]})", "Invalid policy DB: applications is not an object"},
        {R"({"applications":{"A":5}})", "Invalid policy DB: applications.A is not an object"},
        {R"({"applications":{"A":{"action":{"run":[1]}}}})", "Invalid policy DB: applications.A.action.run is not an object"},
        {R"({"applications":{"A":{"action":{"reference":5}}}})", "Invalid policy DB: applications.A.action.reference is not text"},
        {R"({"default":{"action":{"reset":"x"}}})", "Invalid policy DB: default.action.reset is not an object"},
        {R"({"applications":{"A":{"action":{"run":{"policy":{"method":"xfs"}}}}}})", "Invalid action set (not an array) A.action.run.policy"},
    };
    // clang-format on
    for (const auto& [doc, error] : rows) {
        auto db = parseDB(doc);
        OrvActionManager::OrvAction action("A", 1, 2, "run", "A", 1, 2, "run");
        mLog.clear();
        db->executeOnExitAction(&action);
        db->executeDefaultResetAction(&action);
        db->executePolicyAction(&action);
        std::istringstream errs(errors());
        EXPECT_NE("", errs.str()) << doc;
        for (std::string line; std::getline(errs, line);) EXPECT_EQ(error, line) << doc;
    }
}

TEST_F(MalformedTest, XfsWritesExactlyTheTextWithoutCreating) {
    const std::string file = mRoot.write("node", "XXXXXXXX"), absent = mRoot / "absent";
    auto db =
        parseDB(R"({"applications":{"A":{"action":{"run":{"policy":[{"method":"xfs","path":")" +
                file + R"(","type":"int","value":1},{"method":"xfs","path":")" + absent +
                R"(","type":"string","value":"1"},
        {"method":"prop","path":"test.pid","type":"var","value":"PID"}]}}}}})");
    OrvActionManager::OrvAction action("launch", "run", "A", 321, -1);
    db->executePolicyAction(&action);
    EXPECT_EQ("1XXXXXXX", orvtest::readFile(file));  // no truncation, no line feed
    EXPECT_NE(0, access(absent.c_str(), F_OK));
    char value[PROPERTY_VALUE_MAX];
    property_get("test.pid", value, "");
    EXPECT_STREQ("321", value);
    EXPECT_EQ("cannot open \"" + absent + "\" (errno=2) @A.action.run.policy[1]xfs", errors());
    EXPECT_TRUE(mLog.has("property_set(test.pid,321) (ret:0) @A.action.run.policy[2]prop"));
}

}  // namespace
