// orvpolicy through its command line: every kind of finding, protection round trips, info.
#include <gtest/gtest.h>

#include "support/ToolRun.h"

using namespace orvtest;

namespace {

// A valid frame around one application's "run" policy set.
std::string withRun(const std::string& methods, const std::string& extraApps = "") {
    return R"({"parser":"v1.0","version":"v1.0",
        "policy_group":{"boost":[{"method":"xfs","path":"/f","type":"int","value":1}]},
        "applications":{"com.a":{"action":{"run":{"policy":[)" +
           methods + "]}}}" + extraApps + "}}";
}

// A document whose groups g0..g<n-1> each call the next `calls` times.
std::string groupChain(int n, int calls) {
    std::string groups;
    for (int i = 0; i < n; ++i) {
        groups += (i ? ",\"g" : "\"g") + std::to_string(i) + "\":[";
        for (int c = 0; c < calls && i + 1 < n; ++c)
            groups += (c ? "," : "") + std::string(R"({"method":"group","path":"g)") +
                      std::to_string(i + 1) + "\"}";
        groups += "]";
    }
    return R"({"parser":"v1.0","version":"v1","policy_group":{)" + groups +
           R"(},"default":{"action":{"reset":{"policy":[{"method":"group","path":"g0"}]}}}})";
}

// One "ioctl" method: `value` holds its "type" and "value" members, `cfg` the members of its
// "method_ioctl_cfg".
std::string ioctlRun(const std::string& value, const std::string& cfg) {
    return withRun(R"({"method":"ioctl","path":"/d",)" + value + R"("method_ioctl_cfg":{)" + cfg +
                   "}}");
}
const std::string kW = R"("dir":"_IOW","type":"T","nr":1)";

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
         1,
         "error: policy_group.g[0]: unknown method \"xfz\" (the group runs from "
         "com.a.action.launch.on_enter[0])"},
        {"unknown method", withRun(R"({"method":"group","path":"boost"},{"method":"xfz"})"), 1,
         "error: com.a.action.run.policy[1]: unknown method \"xfz\""},
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
        // Checked on the tool's own stack: 20,000 levels crashed the recursive walk.
        {"groups nested too deep", groupChain(20000, 1), 1,
         "error: policy_group.g0: group nesting too deep: g0 -> g1 -> g2 -> ... -> g19997 -> "
         "g19998 -> g19999 (20000 levels, limit 256): orvd refuses the document"},
        {"groups expanding too far", groupChain(40, 2), 1,
         "error: default.action.reset.policy: action set default.action.reset.policy expands to "
         "1099511627775 methods (limit 100000)"},
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
        {"bad hex",
         ioctlRun(R"("type":"binary","value":"12 3",)", kW + R"(,"size":2,"param_type":"binary")"),
         1, "bad hex string \"12 3\""},
        {"lower-case hex digit",
         ioctlRun(R"("type":"binary","value":"0a",)", kW + R"(,"size":1,"param_type":"b")"), 0,
         "gives 0x2A, not 0x0A"},
        {"bad ioctl dir", ioctlRun("", R"("dir":"_IOX","type":"T","nr":1)"), 1,
         "bad \"dir\" \"_IOX\""},
        {"bad ioctl type", ioctlRun("", R"("dir":"_IO","type":"0x","nr":1)"), 1,
         "bad \"type\" \"0x\""},
        {"int size mismatch",
         ioctlRun(R"("type":"int","value":7,)", kW + R"(,"size":2,"param_type":"int")"), 1,
         "\"size\" is 2 but an int value takes 4 bytes"},
        {"no param_type", ioctlRun("", kW), 1, "unsupported \"param_type\" \"undefined\""},
        {"bad mask", withRun("", R"(,"com.b":{"param":{"event_mask":"1021"}})"), 1,
         "error: com.b.param.event_mask: \"1021\" holds characters other than 0 and 1"},
        {"array parameter", withRun("", R"(,"com.b":{"param":{"large_heap":[1]}})"), 1,
         "error: com.b.param.large_heap: a parameter must be a text"},
        {"number parameter", withRun("", R"(,"com.b":{"param":{"large_heap":1}})"), 0,
         "warning: com.b.param.large_heap: is not a text"},
        {"number version", R"({"parser":"v1.0","version":12})", 0,
         "warning: version: not a text: orvd reads it as \"12\""},
        {"null parameter", withRun("", R"(,"com.b":{"param":{"large_heap":null}})"), 0,
         "warning: com.b.param.large_heap: null counts as absent"},
        {"method without method", withRun(R"({"path":"/f"})"), 1, "no \"method\""},
        {"ioctl in a frequent state, through a group",
         R"({"parser":"v1.0","version":"v1","policy_group":{"g":[{"method":"orv_ioctl","path":"/d",
             "cmd":1,"value":"1"}]},"applications":{"com.a":{"action":{"gesture_tap":{"on_enter":[
             {"method":"group","path":"g"}]}}}}})",
         0, "warning: com.a.action.gesture_tap.on_enter: runs an ioctl in a state entered often"},
        {"boost never taken back",
         R"({"parser":"v1.0","version":"v1","policy_group":{"boost":[{"method":"xfs","path":"/f",
             "type":"int","value":1}]},"applications":{"com.a":{"action":{
             "gesture_tap":{"on_enter":[{"method":"group","path":"boost"}]},"run":{"policy":[]}}}}})",
         0,
         "warning: com.a.action.gesture_tap.on_enter: writes xfs /f and nothing sets it back: "
         "neither com.a.action.gesture_tap.on_exit nor com.a.action.run writes it"},
        {"process moved into a group and back into another",
         R"({"parser":"v1.0","version":"v1","applications":{"com.a":{"action":{"run":{
             "on_enter":[{"method":"xfs","path":"/cg/top/cgroup.procs","type":"var","value":"PID"}],
             "on_exit":[{"method":"xfs","path":"/cg/bg/cgroup.procs","type":"var",
             "value":"EXIT_PID"}]}}}}})",
         0, "0 errors, 0 warnings"},
        {"set not an array", withRun("", R"(,"com.b":{"action":{"run":{"policy":{}}}})"), 1,
         "error: com.b.action.run.policy: an action set must be an array"},
        {"misspelt on_stop", R"({"parser":"v1.0","version":"v1","on_stpo":[]})", 0,
         "doc.json:1:33: warning: on_stpo: unknown top-level key, never read (did you mean "
         "on_stop?)"},
        {"on_stop checked as a set",
         R"({"parser":"v1.0","version":"v1","on_stop":[{"path":"/f"}]})", 1, "error: on_stop[0]: "},
        {"misspelt state time-out", withRun("", R"(,"com.b":{"param":{"lanch_timeout":"5"}})"), 0,
         "warning: com.b.param.lanch_timeout: unknown parameter; orvd never asks for it (did you "
         "mean launch_timeout?)"},
        {"state time-out of no time", withRun("", R"(,"*":{"param":{"rotate_timeout":"0"}})"), 0,
         "warning: *.param.rotate_timeout: \"0\" reads as 0; the state then never ends by time"},
        {"launch boost without end or time-out",
         R"({"parser":"v1.0","version":"v1","applications":{"com.a":{"action":{
             "launch":{"on_enter":[{"method":"xfs","path":"/f","type":"int","value":1}]}}}}})",
         0, "nor com.a.action.run writes it, and no launch_timeout ends the state"},
        {"the fallback's run restores a listed launch",
         R"({"parser":"v1.0","version":"v1","default":{"action":{"reset":{"policy":[
             {"method":"xfs","path":"/f","type":"int","value":0}]}}},"applications":{
             "*":{"action":{"run":{"policy":[{"method":"xfs","path":"/f","type":"int","value":0}]}}},
             "com.a":{"action":{
             "launch":{"on_enter":[{"method":"xfs","path":"/f","type":"int","value":1}]}}}}})",
         0, "0 errors, 0 warnings"},
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

TEST(OrvPolicy, StrictChecksPlacesAndFormats) {
    const std::string twice =
        "{\"parser\":\"v1.0\",\"version\":\"v1\",\n\"applications\":{\n"
        "  \"com.a\":{\"action\":{\"run\":{\"policy\":[]}}},\n"
        "  \"com.a\":{\"param\":{}}}}";
    const struct {
        const char* name;
        std::string doc;
        const char* options;
        int status;
        const char* says;  // part of the output; FILE stands for the document's path
    } cases[] = {
        {"duplicate application", twice, "", 1,
         "FILE:4:3: error: com.a: duplicate key \"com.a\": orvd keeps only this one and drops "
         "the one at line 3 with all it holds\n"},
        {"summary", twice, "", 1, "\n1 error, 0 warnings\n"},
        {"placed finding",
         "{\"parser\":\"v1.0\",\"version\":\"v1\",\n \"applications\":{\"com.a\":"
         "{\"action\":{\n  \"gesture_longpress\":{}}}}}",
         "", 0,
         "FILE:3:3: warning: com.a.action.gesture_longpress: unknown state, never entered (did "
         "you mean gesture_long_press?)"},
        {"strict", withRun("", R"(,"com.b":{"action":{"run":{"on_entr":[]}}})"), "--strict", 1,
         "error: com.b.action.run.on_entr: unknown set key (on_enter, on_exit or policy); never "
         "run (did you mean on_enter?)"},
        {"top-level typo", R"({"parser":"v1.0","version":"v1","aplications":{}})", "", 0,
         "warning: aplications: unknown top-level key, never read (did you mean applications?)"},
        {"json", withRun(R"({"method":"xfz"})"), "--format json", 1,
         "\"location\" : \"com.a.action.run.policy[0]\""},
        {"unknown option", withRun(""), "--strictly", 3, "unknown option --strictly"},
        {"bad format", withRun(""), "--format xml", 3, "--format takes text or json"},
    };
    TempRoot root;
    for (const auto& c : cases) {
        const std::string file = root.write("doc.json", c.doc);
        ToolResult r =
            runTool(root, "orvpolicy", std::string("check ") + c.options + " " + shellQuote(file));
        EXPECT_EQ(r.status, c.status) << c.name << "\n" << r.out << r.err;
        std::string says = c.says;
        if (says.compare(0, 4, "FILE") == 0) says = file + says.substr(4);
        EXPECT_NE((r.out + r.err).find(says), std::string::npos) << c.name << ": " << says << "\n"
                                                                 << r.out << r.err;
    }
    EXPECT_EQ(runTool(root, "orvpolicy", "chek x").status, 3);

    // protect judges the file as the protected file it becomes, and refuses errors.
    const std::string bad = root.write("bad.json", withRun(R"({"method":"xfz"})"));
    ToolResult r = runTool(root, "orvpolicy", "protect " + bad + " " + (root / "bad.prot"));
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("has 1 error (see orvpolicy check); --force protects it anyway"),
              std::string::npos)
        << r.err;
    EXPECT_EQ(access((root / "bad.prot").c_str(), F_OK), -1);
    EXPECT_EQ(
        runTool(root, "orvpolicy", "protect --force " + bad + " " + (root / "bad.prot")).status, 0);
}

TEST(OrvPolicy, InfoAppsTableFollowsReferences) {
    TempRoot root;
    const std::string doc = root.write(
        "d.json",
        withRun(
            R"({"method":"group","path":"boost"})",
            R"(,"com.b":{"action":{"reference":"com.a","gesture_tap":{"on_enter":[],"on_exit":[]}}})"));
    ToolResult r = runTool(root, "orvpolicy", "info --apps " + doc);
    EXPECT_EQ(r.status, 0) << r.err;
    for (const char* line :
         {"    com.a                        -    -    p    -    -    -    -    -    -    -    ",
          "    com.b                        -    -    p*   -    -    -    -    -    -    ex   ",
          "  groups:\n    boost\n"})
        EXPECT_NE(r.out.find(line), std::string::npos) << line << "\n" << r.out;
}

TEST(OrvPolicy, ExamplePolicyChecksCleanAndUnreadableFilesGiveStatus2) {
    TempRoot root;
    ToolResult r =
        runTool(root, "orvpolicy", "check " + shellQuote(source("examples/tablet-policy.json")));
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(r.out.find("error:"), std::string::npos) << r.out;
    const std::string missing = root / "missing.json", dir = root / "data";
    for (std::string args : {"check " + missing, "info " + missing, "check " + dir,
                             "protect " + missing + " " + (root / "out")})
        EXPECT_EQ(runTool(root, "orvpolicy", args).status, 2) << args;
}

// "program" only counts as fine in the protected form; the round trip gives the text back.
TEST(OrvPolicy, ProtectAndUnprotectRoundTrip) {
    TempRoot root;
    std::string plain = root.write(
        "p.json",
        withRun(R"({"method":"program","path":"/bin/true","type":"string","value":"-x"})"));
    std::string prot = root / "p.prot", back = root / "back.json";
    EXPECT_EQ(runTool(root, "orvpolicy", "check " + plain).status, 1);
    ASSERT_EQ(runTool(root, "orvpolicy", "protect " + plain + " " + prot + " --seed 7").status, 0);
    std::string text = readFile(prot);
    EXPECT_EQ(text.find('\n'), std::string::npos);
    EXPECT_EQ(text.size() % 32, 0u);  // 2 characters per byte, 16-byte blocks
    ToolResult check = runTool(root, "orvpolicy", "check " + prot);
    EXPECT_EQ(check.status, 0) << check.out;
    EXPECT_NE(runTool(root, "orvpolicy", "info " + prot).out.find("protected:     yes"),
              std::string::npos);
    ASSERT_EQ(runTool(root, "orvpolicy", "unprotect " + prot + " " + back).status, 0);
    EXPECT_EQ(readFile(back), readFile(plain));

    // The same seed gives the same file; another seed another one.
    runTool(root, "orvpolicy", "protect " + plain + " " + (root / "again") + " --seed 7");
    runTool(root, "orvpolicy", "protect " + plain + " " + (root / "other") + " --seed 8");
    EXPECT_EQ(readFile(root / "again"), text);
    EXPECT_NE(readFile(root / "other"), text);

    // A changed character is caught by the digest; plain JSON is no protected file.
    text[400] = text[400] == 'A' ? 'B' : 'A';
    root.write("bad.prot", text);
    EXPECT_EQ(runTool(root, "orvpolicy", "unprotect " + (root / "bad.prot") + " " + back).status, 1);
    EXPECT_EQ(runTool(root, "orvpolicy", "unprotect " + plain + " " + back).status, 1);
}

TEST(OrvPolicy, InfoCountsTheDocument) {
    TempRoot root;
    std::string doc = root.write("d.json", withRun(R"({"method":"group","path":"boost"},
        {"method":"prop","path":"a.b","type":"string","value":"1"})",
                                                   R"(,"com.b":{"action":{"reference":"com.a"}},
                                                      "com.c":5)"));
    ToolResult r = runTool(root, "orvpolicy", "info " + doc);
    EXPECT_EQ(r.status, 0);
    for (const char* line : {"protected:     no", "version:       v1.0 (reads as 1.00)",
                             "applications:  3 (1 through \"reference\")", "policy groups: 1",
                             "methods:       3 (group 1, prop 1, xfs 1)"})
        EXPECT_NE(r.out.find(line), std::string::npos) << line << "\n" << r.out;
}
