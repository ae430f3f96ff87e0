// Documents of the wrong shape: one error line each, no crash, the rest still runs.
#include "PolicyTestSupport.h"

using policytest::xfs;

namespace {

class MalformedTest : public policytest::PolicyTest {};

TEST_F(MalformedTest, WrongKindsAreLoggedAndSkipped) {
    const std::string at = "A.action.run.policy";
    struct Row {
        std::string policy;  // elements before the final good method of A.run.policy
        std::string extra;   // more top-level members
        std::string error;
    };
    const Row rows[] = {
        {"5,", "", "Invalid action (not an object) " + at + "[0]"},
        {R"({"path":"x"},)", "", "Invalid action (no method) " + at + "[0]"},
        {R"({"method":7},)", "", "Invalid action (method is not a string) " + at + "[0]"},
        {R"({"method":"XFS"},)", "", "Unknown method(XFS)"},
        {R"({"method":"program","path":"touch","type":"string","value":"x"},)", "",
         "\"program\" method only support with encrypted policy DB @" + at + "[0]program"},
        {R"({"method":"group","path":1},)", "",
         "path type is not a string. (fetch " + at + "[0]group)"},
        {R"({"method":"group","path":"g"},)", R"(,"policy_group":{"g":{"a":1}})",
         "Invalid action set (not an array) " + at + "[0]g"},
        {R"({"method":"group","path":"g"},)", R"(,"policy_group":[1])",
         "Invalid policy DB: policy_group is not an object"},
        {R"({"method":"group","path":"g"},)", R"(,"policy_group":{"g":[[1]]})",
         "Invalid action (not an object) " + at + "[0]g[0]"},
        {R"({"method":"xfs","path":["p"],"type":"string","value":"v"},)", "",
         "path type is not a string. (fetch " + at + "[0]xfs)"},
        {R"({"method":"prop","path":"p","type":["string"],"value":"v"},)", "",
         "\"type\" must be a string. (fetch " + at + "[0]prop)"},
        {R"({"method":"prop","path":"p","type":"string","value":{"v":1}},)", "",
         "\"value\" is not a string or int. @" + at + "[0]prop"},
        {R"({"method":"xfs","path":"/nonexistent/x","type":"int","value":1},)", "",
         "cannot open \"/nonexistent/x\" (errno=2) @" + at + "[0]xfs"},
        {R"({"method":"prop","path":"bad name","type":"string","value":"v"},)", "",
         "failed to set system property bad name:v.(ret=-1) @" + at + "[0]prop"},
    };
    for (const Row& row : rows) {
        mRoot.write("out", "");
        const std::string out = mRoot / "out";
        Json::Value* root = new Json::Value();
        const std::string text = R"({"applications":{"A":{"action":{"run":{"policy":[)" +
                                 row.policy + xfs(out, "ok") + "]}}}}" + row.extra + "}";
        ASSERT_TRUE(Json::Reader().parse(text, *root)) << text;
        OrvJsonActionDB db(root, false);
        OrvActionManager::OrvAction action("launch", "run", "A", 1, 2);
        mLog.clear();
        db.executePolicyAction(&action);
        EXPECT_EQ(std::vector<std::string>{row.error}, errors()) << row.policy << row.extra;
        EXPECT_EQ("ok", orvtest::readFile(out)) << row.policy << row.extra;
    }
}

TEST_F(MalformedTest, WrongShapesAboveTheSetsDoNotCrash) {
    struct Row {
        std::string doc;
        std::string error;
    };
    const Row rows[] = {
        {R"({"applications":[1]})", "Invalid policy DB: applications is not an object"},
        {R"({"applications":{"A":5}})", "Invalid policy DB: applications.A is not an object"},
        {R"({"applications":{"A":{"action":"x"}}})",
         "Invalid policy DB: applications.A.action is not an object"},
        {R"({"applications":{"A":{"action":{"run":[1]}}}})",
         "Invalid policy DB: applications.A.action.run is not an object"},
        {R"({"applications":{"A":{"action":{"reference":5}}}})",
         "Invalid policy DB: applications.A.action.reference is not text"},
        {R"({"applications":{"A":{"action":{"run":{"policy":{"method":"xfs"}}}}}})",
         "Invalid action set (not an array) A.action.run.policy"},
        {R"({"default":{"action":{"reset":"x"}}})",
         "Invalid policy DB: default.action.reset is not an object"},
        {R"(["not", "an", "object"])", "Invalid policy DB: (root) is not an object"},
    };
    for (const Row& row : rows) {
        Json::Value* root = new Json::Value();
        ASSERT_TRUE(Json::Reader().parse(row.doc, *root)) << row.doc;
        OrvJsonActionDB db(root, false);
        OrvActionManager::OrvAction action("A", 1, 2, "run", "A", 1, 2, "run");
        mLog.clear();
        db.executeOnExitAction(&action);
        db.executeDefaultResetAction(&action);
        db.executePolicyAction(&action);
        auto errs = errors();
        EXPECT_FALSE(errs.empty()) << row.doc;
        for (const auto& e : errs) EXPECT_EQ(row.error, e) << row.doc;
    }
}

TEST_F(MalformedTest, XfsWritesExactlyTheTextWithoutCreating) {
    const std::string file = mRoot.write("node", "XXXXXXXX");
    const std::string absent = mRoot / "absent";
    Json::Value* root = new Json::Value();
    ASSERT_TRUE(Json::Reader().parse(R"({"applications":{"A":{"action":{"run":{"policy":[
        {"method":"xfs","path":")" + file +
                                         R"(","type":"int","value":1},
        {"method":"xfs","path":")" + absent +
                                         R"(","type":"string","value":"1"},
        {"method":"prop","path":"test.pid","type":"var","value":"PID"},
        {"method":"prop","path":"test.gl","type":"var","value":"GLTID"}]}}}}})",
                                     *root));
    OrvJsonActionDB db(root, false);
    OrvActionManager::OrvAction action("launch", "run", "A", 321, -1);
    db.executePolicyAction(&action);
    EXPECT_EQ("1XXXXXXX", orvtest::readFile(file));  // no truncation, no line feed
    EXPECT_NE(0, access(absent.c_str(), F_OK));
    char value[PROPERTY_VALUE_MAX];
    property_get("test.pid", value, "");
    EXPECT_STREQ("321", value);
    property_get("test.gl", value, "unset");
    EXPECT_STREQ("unset", value);
    EXPECT_EQ(std::vector<std::string>{"cannot open \"" + absent +
                                       "\" (errno=2) @A.action.run.policy[1]xfs"},
              errors());
    EXPECT_TRUE(mLog.has("property_set(test.pid,321) (ret:0) @A.action.run.policy[2]prop"));
}

}  // namespace
