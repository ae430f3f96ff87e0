// Value conversions, variables and the hex byte parser.
#include "PolicyTestSupport.h"
#include "policy/methods/OrvHex.h"

namespace {

Json::Value parse(const std::string& text) {
    Json::Value v;
    EXPECT_TRUE(Json::Reader().parse(text, v)) << text;
    return v;
}

class ValueTest : public policytest::PolicyTest {
protected:
    ValueTest() : mDB(new Json::Value(Json::objectValue), false) {}

    // Exactly one error line (or none when `error` is empty) and nothing else above debug.
    void expectOnlyError(const std::string& error, const std::string& what) {
        std::vector<std::string> expected;
        if (!error.empty()) expected.push_back(error);
        EXPECT_EQ(expected, errors()) << what;
        mLog.clear();
    }

    OrvJsonActionDB mDB;
    // Leaves pid 11 / GL 12, enters pid 21 / GL -1 (unknown).
    OrvActionManager::OrvAction mAction{"old", 11, 12, "run", "new", 21, -1, "launch"};
};

TEST_F(ValueTest, ToText) {
    mRoot.write("lf", "5\n");
    mRoot.write("crlf", "5\r\n");
    mRoot.write("onlylf", "\n");
    mRoot.write("long", std::string(300, 'x'));
    property_set("test.value", "on");
    property_set("test.empty", "");
    struct Row {
        std::string object;
        bool ok;
        std::string text;
        std::string error;
    };
    const std::string r = mRoot.path();
    const Row rows[] = {
        {R"({"type":"string","value":"abc"})", true, "abc", ""},
        {R"({"type":"int","value":-42})", true, "-42", ""},
        {R"({"type":"array","value":[{"type":"string","value":"a"},{"type":"int","value":2}]})",
         true, "a 2 ", ""},
        {R"({"type":"array","value":[{"type":"array","value":[{"type":"int","value":1}]},
            {"type":"var","value":"EXIT_PID"}]})",
         true, "1  11 ", ""},
        {R"({"type":"xfs","value":")" + r + R"(/lf"})", true, "5", ""},
        {R"({"type":"xfs","value":")" + r + R"(/crlf"})", true, "5\r", ""},
        {R"({"type":"xfs","value":")" + r + R"(/long"})", true, std::string(255, 'x'), ""},
        {R"({"type":"xfs","value":")" + r + R"(/onlylf"})", false, "", ""},
        {R"({"type":"xfs","value":")" + r + R"(/missing"})", false, "", ""},
        {R"({"type":"prop","value":"test.value"})", true, "on", ""},
        {R"({"type":"prop","value":"test.empty"})", false, "",
         "failed to get system property test.empty or value is .(ret = 0) @"},
        {R"({"type":"var","value":"PID"})", true, "21", ""},
        {R"({"type":"var","value":"GLTID"})", false, "", ""},  // unknown id: silent
        {R"({"type":"var","value":"pid"})", false, "", "Unknown var(pid) @"},
        {R"({"type":"int","value":"5"})", false, "", "Unknown type(int). @"},
        {R"({"type":"string","value":5})", false, "",
         "\"value\" type(int) doesn't match \"type\"(string) @"},
        {R"({"type":"int","value":1.5})", false, "", "\"value\" is not a string or int. @"},
        {R"({"type":"ioctl","value":"x"})", false, "",
         "\"ioctl\" type is not supported to convert to string. @"},
        {R"({"type":"binary","value":"12"})", false, "",
         "\"binary\" type is not supported to convert to string. @"},
        {R"({"type":"array","value":"a"})", false, "", "\"value\" is not an array. @"},
        {R"({"type":"array","value":[{"type":"string","value":"a"},5]})", false, "a ",
         "\"type\" must be a string. (fetch )"},
        {R"({"type":"array","value":[{"type":"int","value":"x"}]})", false, "",
         "Unknown type(int). @"},
        {R"({"type":5,"value":"a"})", false, "", "\"type\" must be a string. (fetch )"},
        {R"([1,2])", false, "", "\"type\" must be a string. (fetch )"},
    };
    for (const Row& row : rows) {
        std::string out;
        mLog.clear();
        int ret = mDB.getValueStringByType(parse(row.object), &mAction, out);
        EXPECT_EQ(row.ok, ret == 0) << row.object;
        if (row.ok) {
            EXPECT_EQ(row.text, out) << row.object;
        }
        expectOnlyError(row.error, row.object);
    }
    // Without a record a variable fails silently.
    std::string out;
    EXPECT_NE(0, mDB.getValueStringByType(parse(R"({"type":"var","value":"PID"})"), nullptr, out));
    expectOnlyError("", "var without record");
}

TEST_F(ValueTest, ToInt) {
    struct Row {
        const char* object;
        bool ok;
        int value;
        const char* error;
    };
    const Row rows[] = {
        {R"({"type":"int","value":7})", true, 7, ""},
        {R"({"type":"string","value":"42abc"})", true, 42, ""},
        {R"({"type":"string","value":"abc"})", true, 0, ""},
        {R"({"type":"int","value":"5"})", false, 0, "Unknown type(int). @"},
        {R"({"type":"string","value":5})", false, 0,
         "\"value\" type(int) doesn't match \"type\"(string) @"},
        {R"({"type":"int","value":4294967296})", false, 0, "\"value\" is not a string or int. @"},
        {R"({"type":"xfs","value":"/x"})", false, 0, "\"xfs\" type is not supported. @"},
        {R"({"type":"prop","value":"p"})", false, 0, "\"prop\" type is not supported. @"},
        {R"({"type":"var","value":"PID"})", false, 0, "\"var\" type is not supported. @"},
        {R"({"type":"ioctl","value":"x"})", false, 0,
         "\"ioctl\" type is not supported to convert to int. @"},
        {R"({"type":"array","value":"x"})", false, 0,
         "\"array\" type is not supported to convert to int. @"},
        {R"({"type":"binary","value":"12"})", false, 0,
         "\"binary\" type is not supported to convert to int. @"},
        {R"({"type":"other","value":"1"})", false, 0, "Unknown type(other). @"},
    };
    for (const Row& row : rows) {
        int out = -99;
        mLog.clear();
        EXPECT_EQ(row.ok, mDB.getValueIntByType(parse(row.object), &mAction, out) == 0)
            << row.object;
        if (row.ok) {
            EXPECT_EQ(row.value, out) << row.object;
        }
        expectOnlyError(row.error, row.object);
    }
}

TEST_F(ValueTest, ToBytes) {
    struct Row {
        const char* object;
        bool ok;
        std::vector<unsigned char> bytes;
        std::vector<std::string> errors;
    };
    const Row rows[] = {
        {R"({"type":"binary","value":"12 34 AB"})", true, {0x12, 0x34, 0xAB}, {}},
        {R"({"type":"binary","value":"0a"})", true, {0x2A}, {}},
        {R"({"type":"binary","value":"12 3"})",
         false,
         {},
         {"Invalid hex string termination.", "\"value\" is an invalid hex string @"}},
        {R"({"type":"binary","value":"1g"})",
         false,
         {},
         {"Invalid hex char(g)", "\"value\" is an invalid hex string @"}},
        {R"({"type":"string","value":"12"})",
         false,
         {},
         {"\"string\" type is not supported to convert to byte array. @"}},
        {R"({"type":"binary","value":12})", false, {}, {"\"value\" is not a string. @"}},
    };
    for (const Row& row : rows) {
        std::vector<unsigned char> out;
        mLog.clear();
        EXPECT_EQ(row.ok, mDB.getValueByteArrayByType(parse(row.object), &mAction, out) == 0)
            << row.object;
        if (row.ok) {
            EXPECT_EQ(row.bytes, out) << row.object;
        }
        EXPECT_EQ(row.errors, errors()) << row.object;
    }
}

TEST_F(ValueTest, HexBytes) {
    struct Row {
        const char* text;
        int ret;  // 0 ok, -1 termination, 1 bad char
        std::vector<unsigned char> bytes;
        const char* error;
    };
    const Row rows[] = {
        {"12", 0, {0x12}, ""},
        {"12 34", 0, {0x12, 0x34}, ""},
        {"12:34", 0, {0x12, 0x34}, ""},
        {"AB\xff"
         "CD",
         0,
         {0xAB, 0xCD},
         ""},
        // Lower-case low digits also set bit 5; lower-case high digits are harmless.
        {"0a 1a 0A fF cd", 0, {0x2A, 0x3A, 0x0A, 0xFF, 0xED}, ""},
        {"12 3", -1, {}, "Invalid hex string termination."},
        {"", -1, {}, "Invalid hex string termination."},
        {"1g", 1, {}, "Invalid hex char(g)"},
        {"12 x4", 1, {0x12, 0x00}, "Invalid hex char(x)"},
    };
    for (const Row& row : rows) {
        std::vector<unsigned char> out;
        mLog.clear();
        int ret = hexDataStringToByteArray(row.text, out);
        EXPECT_EQ(row.ret, ret) << row.text;
        if (ret >= 0 && !row.bytes.empty()) {
            EXPECT_EQ(row.bytes, out) << row.text;
        }
        expectOnlyError(row.error, row.text);
    }
}

}  // namespace
