// "ioctl" and "orv_ioctl" requests and argument bytes, recorded without a driver.
#include <errno.h>

#include <set>

#include "IoctlRecorder.h"
#include "PolicyTestSupport.h"

namespace {

using ioctlrec::ArgKind;

std::string le32(int v) {
    std::string s(4, '\0');
    for (int i = 0; i < 4; ++i) s[i] = static_cast<char>((static_cast<uint32_t>(v) >> (8 * i)));
    return s;
}

class IoctlTest : public policytest::PolicyTest {
protected:
    void SetUp() override {
        PolicyTest::SetUp();
        mNode = mRoot.write("dev/orvnode", "");
    }
    void TearDown() override {
        ioctlrec::setResult(0, 0);
        PolicyTest::TearDown();
    }

    // Runs `method` as the only "on_enter" method of A in state run.
    void run(const std::string& method, int times = 1) {
        Json::Value* root = new Json::Value();
        ASSERT_TRUE(Json::Reader().parse(
            R"({"applications":{"A":{"action":{"run":{"on_enter":[)" + method + "]}}}}}", *root))
            << method;
        OrvJsonActionDB db(root, false);
        OrvActionManager::OrvAction action("run", "run", "A", 4321, -1);
        for (int i = 0; i < times; ++i) db.executeOnEnterAction(&action);
    }

    std::string ioctlMethod(const std::string& cfg, const std::string& value) {
        return R"({"method":"ioctl","path":")" + mNode + R"(","method_ioctl_cfg":)" + cfg +
               (value.empty() ? "" : "," + value) + "}";
    }

    std::string mNode;
};

const char* const kAt = "A.action.run.on_enter[0]ioctl";

TEST_F(IoctlTest, RequestsAndArguments) {
    struct Row {
        const char* cfg;
        const char* value;
        ArgKind kind;
        size_t bytes;
        uint32_t request;
        bool nullArg;
        std::string arg;
    };
    const Row rows[] = {
        {R"({"dir":"_IOW","type":"T","nr":1,"size":4,"param_type":"int"})",
         R"("type":"int","value":7)", ArgKind::Bytes, 4, 0x40045401, false, le32(7)},
        {R"({"dir":"_IOW","type":"T","nr":1,"size":4,"param_type":"i"})",
         R"("type":"string","value":"-3")", ArgKind::Bytes, 4, 0x40045401, false, le32(-3)},
        {R"({"dir":"_IO","type":"T","nr":1,"size":4})", "", ArgKind::Text, 0, 0x5401, true, ""},
        {R"({"dir":"_IOWR","type":"0x54","nr":2,"size":3,"param_type":"binary"})",
         R"("type":"binary","value":"01 02 FF")", ArgKind::Bytes, 3, 0xC0035402, false,
         std::string("\x01\x02\xFF", 3)},
        {R"({"dir":"_IOR|_IOW","type":"0x54","nr":2,"size":1,"param_type":"bytes"})",
         R"("type":"binary","value":"0a")", ArgKind::Bytes, 1, 0xC0015402, false, "\x2A"},
        {R"({"dir":"_IOW","type":"x","nr":9,"param_type":"string"})",
         R"("type":"string","value":"hello")", ArgKind::Text, 0, 0x40007809, false, "hello"},
        {R"({"dir":"_IOW","type":"x","nr":9,"size":99,"param_type":"s"})",
         R"("type":"var","value":"PID")", ArgKind::Text, 0, 0x40637809, false, "4321"},
        // Fields are not masked: a wide type spills into the size bits.
        {R"({"dir":"_IO","type":"0x1FF","nr":1})", "", ArgKind::Text, 0, 0x1FF01, true, ""},
        {R"({"dir":"_IOW","type":"T","nr":1,"size":4,"bufsize":8,"read_select":1,
            "param_type":"int"})",
         R"("type":"int","value":-1)", ArgKind::Bytes, 4, 0x40045401, false, le32(-1)},
    };
    for (const Row& row : rows) {
        ioctlrec::watch(mNode, row.kind, row.bytes);
        mLog.clear();
        run(ioctlMethod(row.cfg, row.value));
        auto calls = ioctlrec::calls();
        ASSERT_EQ(1u, calls.size()) << row.cfg;
        EXPECT_EQ(row.request, calls[0].request) << std::hex << calls[0].request << " " << row.cfg;
        EXPECT_EQ(row.nullArg, calls[0].nullArg) << row.cfg;
        EXPECT_EQ(row.arg, calls[0].arg) << row.cfg;
        EXPECT_EQ(std::vector<std::string>{}, errors()) << row.cfg;
    }
}

TEST_F(IoctlTest, RefusedMethodsIssueNothing) {
    const std::string at = kAt;
    struct Row {
        std::string cfg;
        std::string value;
        std::vector<std::string> errors;
    };
    const Row rows[] = {
        {R"({"dir":"_IOR","type":"T","nr":1,"size":4,"param_type":"int"})",
         R"("type":"int","value":7)",
         {}},
        {R"({"dir":"_IOW","type":"T","nr":1,"size":4})",
         R"("type":"int","value":7)",
         {"Unsupported ioctl param_type(undefined) in method_ioctl_cfg. (fetch " + at + ")"}},
        {R"({"dir":"_IOW","type":"T","nr":1,"size":4,"param_type":"float"})",
         R"("type":"int","value":7)",
         {"Unsupported ioctl param_type(float) in method_ioctl_cfg. (fetch " + at + ")"}},
        {R"({"dir":"_IOW","type":"0x","nr":1})",
         "",
         {"Unknown hex string format (0x)",
          "Unknown \"type\" format(0x) in method_ioctl_cfg. @" + at}},
        {R"({"dir":"_IOW","type":"TT","nr":1})",
         "",
         {"Unknown hex string format (TT)",
          "Unknown \"type\" format(TT) in method_ioctl_cfg. @" + at}},
        {R"({"dir":"_IOW","type":84,"nr":1})",
         "",
         {"\"type \" should be a string in method_ioctl_cfg @" + at}},
        {R"({"type":"T","nr":1})", "", {"\"dir \" should be a string in method_ioctl_cfg @" + at}},
        {R"({"dir":"_IOX","type":"T","nr":1})",
         "",
         {"Unknown \"dir\" type(_IOX) in method_ioctl_cfg @" + at}},
        {R"({"dir":"_IOW","type":"T","nr":"1"})",
         "",
         {"\"nr \" should be an int in method_ioctl_cfg. (fetch " + at + ")"}},
        {R"({"dir":"_IOW","type":"T","nr":1,"size":4,"param_type":"binary"})",
         R"("type":"binary","value":"01 02 03")",
         {"\"size\"(4) in method_ioctl_cfg doesn't match \"value\" size(3). (fetch " + at + ")"}},
        {R"({"dir":"_IOW","type":"T","nr":1,"size":2,"param_type":"int"})",
         R"("type":"int","value":7)",
         {"\"size\"(2) in method_ioctl_cfg doesn't match \"value\" size(4). (fetch " + at + ")"}},
        {R"({"dir":"_IOW","type":"T","nr":1,"size":4,"param_type":"int"})",
         R"("type":"int","value":"7")",
         {"Unknown type(int). @" + at}},
        {R"("not an object")", "", {"\"method_ioctl_cfg\" is not an object @" + at}},
    };
    for (const Row& row : rows) {
        ioctlrec::watch(mNode, ArgKind::Text);
        mLog.clear();
        run(ioctlMethod(row.cfg, row.value));
        EXPECT_TRUE(ioctlrec::calls().empty()) << row.cfg;
        EXPECT_EQ(row.errors, errors()) << row.cfg;
    }
    mLog.clear();
    run(R"({"method":"ioctl","path":")" + mNode + R"("})");
    EXPECT_EQ(std::vector<std::string>{"Cannot find method_ioctl_cfg @" + at}, errors());
    mLog.clear();
    run(R"({"method":"ioctl","path":1})");
    EXPECT_EQ(std::vector<std::string>{"path type is not a string. (fetch " + at + ")"}, errors());
}

TEST_F(IoctlTest, OrvIoctl) {
    const std::string at = "A.action.run.on_enter[0]orv_ioctl";
    struct Row {
        std::string fields;
        uint32_t request;
        std::string arg;
    };
    const Row rows[] = {
        {R"("cmd":3,"value":"abc")", 0x40047803, "abc"},
        {R"("value":"")", 0x40047800, ""},
        {R"("cmd":256,"value":"1 2")", 0x40047900, "1 2"},  // cmd is OR-ed in unmasked
    };
    for (const Row& row : rows) {
        ioctlrec::watch(mNode, ArgKind::Text);
        run(R"({"method":"orv_ioctl","path":")" + mNode + "\"," + row.fields + "}");
        auto calls = ioctlrec::calls();
        ASSERT_EQ(1u, calls.size()) << row.fields;
        EXPECT_EQ(row.request, calls[0].request) << row.fields;
        EXPECT_EQ(row.arg, calls[0].arg) << row.fields;
    }
    EXPECT_EQ(std::vector<std::string>{}, errors());

    ioctlrec::watch(mNode, ArgKind::Text);
    run(R"({"method":"orv_ioctl","path":")" + mNode + R"(","cmd":1,"value":7})");
    run(R"({"method":"orv_ioctl","cmd":1,"value":"7"})");
    run(R"({"method":"orv_ioctl","path":")" + mNode + R"(","cmd":"1","value":"7"})");
    EXPECT_EQ(1u, ioctlrec::calls().size());  // only the one whose "cmd" counted as absent
    EXPECT_EQ(0x40047800u, ioctlrec::calls()[0].request);
    EXPECT_EQ((std::vector<std::string>{"value type is not string (" + at + ")",
                                        "path type is not a string. (fetch " + at + ")",
                                        "\"cmd\" is not an int, 0 is used @" + at}),
              errors());
}

TEST_F(IoctlTest, NodeIsOpenedEveryTime) {
    ioctlrec::watch(mNode, ArgKind::Text);
    run(R"({"method":"ioctl","path":")" + mNode +
            R"(","method_ioctl_cfg":{"dir":"_IO","type":"T","nr":1}})",
        3);
    run(R"({"method":"orv_ioctl","path":")" + mNode + R"(","value":"x"})", 2);
    auto calls = ioctlrec::calls();
    ASSERT_EQ(5u, calls.size());
    std::set<int> fds;
    for (const auto& c : calls) fds.insert(c.fd);
    EXPECT_EQ(5u, fds.size());
}

TEST_F(IoctlTest, FailuresAreReported) {
    const std::string missing = mRoot / "dev/none";
    run(R"({"method":"ioctl","path":")" + missing +
        R"(","method_ioctl_cfg":{"dir":"_IO","type":"T","nr":1}})");
    run(R"({"method":"orv_ioctl","path":")" + missing + R"(","cmd":1,"value":"v"})");
    ioctlrec::watch(mNode, ArgKind::Bytes, 4);
    ioctlrec::setResult(-1, EINVAL);
    run(ioctlMethod(R"({"dir":"_IOW","type":"T","nr":1,"size":4,"param_type":"int"})",
                    R"("type":"int","value":7)"));
    run(R"({"method":"orv_ioctl","path":")" + mNode + R"(","cmd":2,"value":"v"})");
    EXPECT_EQ(2u, ioctlrec::calls().size());
    EXPECT_EQ((std::vector<std::string>{
                  "Cannot open \"" + missing + "\"(errno=2) @" + kAt,
                  "cannot open \"" + missing + "\" (errno=2) @A.action.run.on_enter[0]orv_ioctl",
                  "ioctl{path:" + mNode +
                      " dir:1 type:84 nr:1 size:4 param_type:int} (ret=-1, errno=22) @" + kAt,
                  "orv_ioctl{path:" + mNode +
                      " cmd:2 value:v} (ret=-1, errno=22) @A.action.run.on_enter[0]orv_ioctl"}),
              errors());
}

}  // namespace
