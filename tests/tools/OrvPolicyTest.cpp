// orvpolicy through its command line: every kind of finding, protection round trips, info.
#include <gtest/gtest.h>

#include "tools/ToolRun.h"

using namespace orvtest;

namespace {

// A valid frame around one application's "run" policy set.
std::string withRun(const std::string& methods, const std::string& extraApps = "") {
    return R"({"parser":"v1.0","version":"v1.0",
        "policy_group":{"boost":[{"method":"xfs","path":"/f","type":"int","value":1}]},
        "applications":{"com.a":{"action":{"run":{"policy":[)" +
           methods + "]}}}" + extraApps + "}}";
}

struct FindingCase {
    const char* name;
    std::string doc;
    int status;
    const char* line;  // expected part of one output line
};

}  // namespace

TEST(OrvPolicy, EachKindOfFinding) {
    const FindingCase cases[] = {
        {"syntax", "{\n  \"parser\": \"v1.0\",\n  ]\n}", 1, "doc.json:3:3: error: json: "},
        {"parser too new", R"({"parser":"v1.5","version":"v1"})", 1,
         "error: parser: \"v1.5\" needs a newer engine"},
        {"parser missing", R"({"version":"v1"})", 1, "error: parser: missing"},
        {"version missing", R"({"parser":"v1.0"})", 1, "error: version: missing"},
        {"version zero", R"({"parser":"v1.0","version":"v0"})", 1,
         "error: version: \"v0\" reads as 0"},
        {"version without v", R"({"parser":"v1.0","version":"12"})", 0,
         "warning: version: \"12\" reads as 2"},
        {"unknown method in a group",
         R"({"parser":"v1.0","version":"v1","policy_group":{"g":[{"method":"xfz"}]},
             "applications":{"com.a":{"action":{"launch":{"on_enter":[{"method":"group","path":"g"}]}}}}})",
         1, "error: com.a.action.launch.on_enter[0]g[0]: unknown method \"xfz\""},
        {"unknown method", withRun(R"({"method":"group","path":"boost"},{"method":"xfz"})"), 1,
         "error: com.a.action.run.policy[1]: unknown method \"xfz\""},
        {"program in a plain file",
         withRun(R"({"method":"program","path":"/bin/true","type":"string","value":""})"), 1,
         "error: com.a.action.run.policy[0]: \"program\" runs only from a protected"},
        {"missing group", withRun(R"({"method":"group","path":"nope"})"), 1,
         "error: com.a.action.run.policy[0]: policy_group \"nope\" does not exist"},
        {"action reference cycle",
         withRun(
             "",
             R"(,"com.b":{"action":{"reference":"com.c"}},"com.c":{"action":{"reference":"com.b"}})"),
         1, "error: com.b.action.reference: \"reference\" cycle com.b -> com.c -> com.b"},
        {"param reference cycle", withRun("", R"(,"com.b":{"param":{"reference":"com.b"}})"), 1,
         "error: com.b.param.reference: \"reference\" cycle com.b -> com.b"},
        {"reference to nothing", withRun("", R"(,"com.b":{"action":{"reference":"com.z"}})"), 1,
         "error: com.b.action.reference: names \"com.z\""},
        {"group cycle",
         R"({"parser":"v1.0","version":"v1","policy_group":{"g":[{"method":"group","path":"g"}]}})",
         1, "error: policy_group.g: group cycle g -> g"},
        {"unknown state", withRun("", R"(,"com.b":{"action":{"lunch":{}}})"), 0,
         "warning: com.b.action.lunch: unknown state"},
        {"unknown set key", withRun("", R"(,"com.b":{"action":{"run":{"on_leave":[]}}})"), 0,
         "warning: com.b.action.run.on_leave: unknown set key"},
        {"int type with a text", withRun(R"({"method":"xfs","path":"/f","type":"int","value":"5"})"),
         1, "error: com.a.action.run.policy[0]: type int needs an integer"},
        {"unknown variable", withRun(R"({"method":"prop","path":"a.b","type":"var","value":"TID"})"),
         1, "unknown variable \"TID\""},
        {"binary as text", withRun(R"({"method":"xfs","path":"/f","type":"binary","value":"12"})"),
         1, "a \"binary\" value cannot be turned into text"},
        {"bad hex", withRun(R"({"method":"ioctl","path":"/d","type":"binary","value":"12 3",
                     "method_ioctl_cfg":{"dir":"_IOW","type":"T","nr":1,"size":2,"param_type":"binary"}})"),
         1, "bad hex string \"12 3\""},
        {"lower-case hex digit",
         withRun(R"({"method":"ioctl","path":"/d","type":"binary","value":"0a",
                     "method_ioctl_cfg":{"dir":"_IOW","type":"T","nr":1,"size":1,"param_type":"b"}})"),
         0, "gives 0x2A, not 0x0A"},
        {"bad ioctl dir",
         withRun(
             R"({"method":"ioctl","path":"/d","method_ioctl_cfg":{"dir":"_IOX","type":"T","nr":1}})"),
         1, "unknown \"dir\" \"_IOX\""},
        {"bad ioctl type",
         withRun(
             R"({"method":"ioctl","path":"/d","method_ioctl_cfg":{"dir":"_IO","type":"0x","nr":1}})"),
         1, "bad \"type\" \"0x\""},
        {"int size mismatch", withRun(R"({"method":"ioctl","path":"/d","type":"int","value":7,
                     "method_ioctl_cfg":{"dir":"_IOW","type":"T","nr":1,"size":2,"param_type":"int"}})"),
         1, "\"size\" is 2 but an int value takes 4 bytes"},
        {"no param_type",
         withRun(
             R"({"method":"ioctl","path":"/d","method_ioctl_cfg":{"dir":"_IOW","type":"T","nr":1}})"),
         1, "unsupported \"param_type\" \"undefined\""},
        {"bad mask", withRun("", R"(,"com.b":{"param":{"event_mask":"1021"}})"), 1,
         "error: com.b.param.event_mask: \"1021\" holds characters other than 0 and 1"},
        {"array parameter", withRun("", R"(,"com.b":{"param":{"large_heap":[1]}})"), 1,
         "error: com.b.param.large_heap: a parameter must be a text"},
        {"number parameter", withRun("", R"(,"com.b":{"param":{"large_heap":1}})"), 0,
         "warning: com.b.param.large_heap: is not a text"},
        {"method without method", withRun(R"({"path":"/f"})"), 1, "no \"method\""},
        {"set not an array", withRun("", R"(,"com.b":{"action":{"run":{"policy":{}}}})"), 1,
         "error: com.b.action.run.policy: an action set must be an array"},
    };
    TempRoot root;
    for (const auto& c : cases) {
        std::string file = root.write("doc.json", c.doc);
        ToolResult r = runTool(root, "orvpolicy", "check " + shellQuote(file));
        EXPECT_EQ(r.status, c.status) << c.name << "\n" << r.out << r.err;
        std::string expected = std::string(c.line);
        if (expected.compare(0, 9, "doc.json:") == 0) expected = root.path() + "/" + expected;
        EXPECT_NE(r.out.find(expected), std::string::npos) << c.name << ":\n" << r.out;
    }
}

TEST(OrvPolicy, ExamplePolicyChecksClean) {
    TempRoot root;
    ToolResult r =
        runTool(root, "orvpolicy", "check " + shellQuote(source("examples/tablet-policy.json")));
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(r.out.find("error:"), std::string::npos) << r.out;
}

TEST(OrvPolicy, UnreadableFilesGiveStatus2) {
    TempRoot root;
    EXPECT_EQ(runTool(root, "orvpolicy", "check " + (root / "missing.json")).status, 2);
    EXPECT_EQ(runTool(root, "orvpolicy", "info " + (root / "missing.json")).status, 2);
    EXPECT_EQ(
        runTool(root, "orvpolicy", "protect " + (root / "missing") + " " + (root / "o")).status, 2);
}

TEST(OrvPolicy, ProtectAndUnprotectRoundTrip) {
    TempRoot root;
    std::string plain = source("examples/tablet-policy.json");
    std::string prot = root / "policy.prot", back = root / "back.json";
    ASSERT_EQ(
        runTool(root, "orvpolicy", "protect " + shellQuote(plain) + " " + prot + " --seed 7").status,
        0);
    std::string text = readFile(prot);
    EXPECT_EQ(text.find('\n'), std::string::npos);
    EXPECT_EQ(text.size() % 32, 0u);  // 2 characters per byte, 16-byte blocks

    ToolResult check = runTool(root, "orvpolicy", "check " + prot);
    EXPECT_EQ(check.status, 0) << check.out;
    ToolResult info = runTool(root, "orvpolicy", "info " + prot);
    EXPECT_NE(info.out.find("protected:     yes"), std::string::npos) << info.out;

    ASSERT_EQ(runTool(root, "orvpolicy", "unprotect " + prot + " " + back).status, 0);
    EXPECT_EQ(readFile(back), readFile(plain));

    // The same seed gives the same file; another seed another one.
    std::string again = root / "again.prot", other = root / "other.prot";
    runTool(root, "orvpolicy", "protect " + shellQuote(plain) + " " + again + " --seed 7");
    runTool(root, "orvpolicy", "protect " + shellQuote(plain) + " " + other + " --seed 8");
    EXPECT_EQ(readFile(again), text);
    EXPECT_NE(readFile(other), text);

    // A changed character is caught by the digest.
    std::string bad = text;
    bad[700] = bad[700] == 'A' ? 'B' : 'A';
    root.write("bad.prot", bad);
    EXPECT_EQ(runTool(root, "orvpolicy", "unprotect " + (root / "bad.prot") + " " + back).status, 1);
    EXPECT_EQ(runTool(root, "orvpolicy", "unprotect " + shellQuote(plain) + " " + back).status, 1);
}

TEST(OrvPolicy, ProgramIsAcceptedOnlyWhenProtected) {
    TempRoot root;
    std::string plain = root.write(
        "p.json",
        withRun(R"({"method":"program","path":"/bin/true","type":"string","value":"-x"})"));
    EXPECT_EQ(runTool(root, "orvpolicy", "check " + plain).status, 1);
    ASSERT_EQ(runTool(root, "orvpolicy", "protect " + plain + " " + (root / "p.prot")).status, 0);
    ToolResult r = runTool(root, "orvpolicy", "check " + (root / "p.prot"));
    EXPECT_EQ(r.status, 0) << r.out;
}

TEST(OrvPolicy, InfoCountsTheDocument) {
    TempRoot root;
    std::string doc = root.write("d.json", withRun(R"({"method":"group","path":"boost"},
        {"method":"prop","path":"a.b","type":"string","value":"1"})",
                                                   R"(,"com.b":{"action":{"reference":"com.a"}})"));
    ToolResult r = runTool(root, "orvpolicy", "info " + doc);
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("protected:     no"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("version:       v1.0 (reads as 1.00)"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("applications:  2 (1 through \"reference\")"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("policy groups: 1"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("methods:       3 (group 1, prop 1, xfs 1)"), std::string::npos) << r.out;
}
