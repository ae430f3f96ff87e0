// Documents of the wrong shape: one error line each, no crash, the rest still runs.
#include <functional>
#include <set>
#include <sstream>

#include "PolicyTestSupport.h"

using namespace policytest;

namespace {

using MalformedTest = PolicyTest;

TEST_F(MalformedTest, WrongKindsAndShapesAreLoggedAndSkipped) {
    const std::string at = "A.action.run.policy[0]";
    // A's run policy: `first`, then a method writing "ok"; `extra`: more top-level members.
    auto run = [](const std::string& first, const std::string& extra = "") {
        return R"({"applications":{"A":{"action":{"run":{"policy":[)" + first + "<ok>]}}}}" +
               extra + "}";
    };
    const std::string group = R"({"method":"group","path":"g"},)", absent = mRoot / "absent";
    // clang-format off
    const std::pair<std::string, std::string> rows[] = {
        {run("5,"), "Invalid action (not an object) " + at},
        {run(R"({"path":"x"},)"), "Invalid action (no method) " + at},
        {run("null,"), "Invalid action (no method) " + at},
        {run(R"({"method":7},)"), "Invalid action (method is not a string) " + at},
        {run(R"({"method":"XFS"},)"), "Unknown method(XFS)"},
        {run(R"({"method":"program","path":"touch","type":"string","value":"x"},)"), "\"program\" method only support with encrypted policy DB @" + at + "program"},
        {run(R"({"method":"group","path":1},)"), "path type is not a string. (fetch " + at + "group)"},
        {run(group, R"(,"policy_group":{"g":{"a":1}})"), "Invalid action set (not an array) " + at + "g"},
        {run(group, R"(,"policy_group":[1])"), "Invalid policy DB: policy_group is not an object"},
        {run(R"({"method":"xfs","path":["p"],"type":"string","value":"v"},)"), "path type is not a string. (fetch " + at + "xfs)"},
        {run(R"({"method":"prop","path":"bad name","type":"string","value":"v"},)"), "failed to set system property bad name:v.(ret=-1) @" + at + "prop"},
        {run(xfs(absent, "1") + ","), "cannot open \"" + absent + "\" (errno=2) @" + at + "xfs"},
        {run(R"({"method":"prop","path":"test.pid","type":"var","value":"PID"},)"), ""},
        {R"(["not", "an", "object"])", "Invalid policy DB: (root) is not an object"},
        {R"({"applications":[1]})", "Invalid policy DB: applications is not an object"},
        {R"({"applications":{"A":5}})", "Invalid policy DB: applications.A is not an object"},
        {R"({"applications":{"A":{"action":{"run":[1]}}}})", "Invalid policy DB: applications.A.action.run is not an object"},
        {R"({"applications":{"A":{"action":{"reference":5}}}})", "Invalid policy DB: applications.A.action.reference is not text"},
        {R"({"applications":{"A":{"action":{"run":"oops","reference":"B"}},"B":{"action":{"run":{"policy":[<ok>]}}}}})", "Invalid policy DB: applications.A.action.run is not an object"},
        {R"({"default":{"action":{"reset":"x"}}})", "Invalid policy DB: default.action.reset is not an object"},
        {R"({"applications":{"A":{"action":{"run":{"policy":{"method":"xfs"}}}}}})", "Invalid action set (not an array) A.action.run.policy"},
        // Parameters of the wrong kind, on A's own entry or down its reference chain; the
        // fallback's own is read for a state A lacks.
        {R"({"applications":{"A":{"param":5}}})", "Invalid policy DB: applications.A.param is not an object"},
        {R"({"applications":{"A":{"param":{"run_timeout":[1]}}}})", "Invalid policy DB: applications.A.param.run_timeout is not text"},
        {R"({"applications":{"A":{"param":{"reference":5}}}})", "Invalid policy DB: applications.A.param.reference is not text"},
        {R"({"applications":{"A":{"param":{"reference":"B"}},"B":{"param":{"reference":"C"}},"C":{"param":{"run_timeout":{}}}}})", "Invalid policy DB: applications.C.param.run_timeout is not text"},
        {R"({"applications":{"A":{"param":{"x":"1"}},"*":{"param":{"run_timeout":[1]}}}})", "Invalid policy DB: applications.*.param.run_timeout is not text"},
    };
    // clang-format on
    const std::string out = mRoot / "out";
    property_set("test.pid", "");
    for (const auto& [doc, error] : rows) {
        mRoot.write("out", "XXXX");
        auto db = parseDB(marks(doc, out));
        OrvActionManager::OrvAction action("A", 3, 2, "run", "A", 1, 2, "run");
        mLog.clear();
        // Runs and queries log what they meet every time, not only the first.
        auto execute = [&] {
            db->executeOnExitAction(&action);
            db->executeDefaultResetAction(&action);
            db->executePolicyAction(&action);
        };
        auto query = [&] {
            std::string value = "kept";
            EXPECT_FALSE(db->findAppParam("A", "run_timeout", value)) << doc;
            EXPECT_EQ("kept", value) << doc;
        };
        auto logged = [&](const std::function<void()>& step) {
            const size_t seen = mLog.records().size();
            step();
            std::string lines;
            const auto all = mLog.records();
            for (size_t i = seen; i < all.size(); ++i)
                if (all[i].prio == ANDROID_LOG_ERROR) lines += all[i].text + "\n";
            return lines;
        };
        const std::string ran = logged(execute), asked = logged(query);
        EXPECT_EQ(ran, logged(execute)) << doc;
        EXPECT_EQ(asked, logged(query)) << doc;
        // Some shapes are met by several lookups, each logging the same line.
        std::set<std::string> lines;
        std::istringstream errs(errors());
        for (std::string line; std::getline(errs, line);) lines.insert(line);
        EXPECT_EQ(error.empty() ? std::set<std::string>{} : std::set<std::string>{error}, lines)
            << doc;
        // Exactly the text: no truncation, no line feed.
        EXPECT_EQ(doc.find("<ok>") == std::string::npos ? "XXXX" : "okXX", orvtest::readFile(out))
            << doc;
    }
    EXPECT_NE(0, access(absent.c_str(), F_OK));  // never created
    char value[PROPERTY_VALUE_MAX];
    property_get("test.pid", value, "");
    EXPECT_STREQ("1", value);
}

// A state named "reference" turns a missing "reference" into an object: from then on every run
// of the application reports it, though the runs before found nothing wrong.
TEST_F(MalformedTest, AStateNamedReferenceSpoilsLaterRuns) {
    auto db = parseDB(R"({"applications":{"G":{"action":{}}}})");
    bool spoilt = false;
    for (const char* state : {"run", "run", "reference", "run", "run"}) {
        mLog.clear();
        StateChange action("start", state, "G", 1, 2);
        db->executeOnEnterAction(&action);
        spoilt = spoilt || strcmp(state, "reference") == 0;
        EXPECT_EQ(spoilt ? "Invalid policy DB: applications.G.action.reference is not text" : "",
                  errors())
            << state;
    }
}

}  // namespace
