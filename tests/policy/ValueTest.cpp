// Value conversions, variables and the hex byte parser.
#include <ctype.h>

#include "PolicyTestSupport.h"

namespace {

using ValueTest = policytest::PolicyTest;

TEST_F(ValueTest, Conversions) {
    OrvJsonActionDB db(new Json::Value(Json::objectValue), false);
    // Leaves pid 11 / GL 12, enters pid 21 / GL -1 (unknown).
    OrvActionManager::OrvAction record("old", 11, 12, "run", "new", 21, -1, "launch");
    // Converts `object` to text ('s', or 'S' with no record), an int ('i') or bytes ('b'); the
    // result is shown as text.
    auto convert = [&](char kind, const std::string& object, std::string& out) {
        Json::Value v;
        EXPECT_TRUE(Json::Reader().parse(object, v)) << object;
        auto* action = kind == 'S' ? nullptr : &record;
        int n = -99, ret;
        std::vector<unsigned char> bytes;
        if (tolower(kind) == 's') return db.getValueStringByType(v, action, out);
        ret = kind == 'i' ? db.getValueIntByType(v, action, n)
                          : db.getValueByteArrayByType(v, action, bytes);
        out = kind == 'i' ? std::to_string(n) : std::string(bytes.begin(), bytes.end());
        return ret;
    };
    mRoot.write("lf", "5\n");
    mRoot.write("crlf", "5\r\n");
    mRoot.write("onlylf", "\n");
    mRoot.write("long", std::string(300, 'x'));
    property_set("test.value", "on");
    property_set("test.empty", "");
    const std::string r = mRoot.path();
    struct Row {
        char kind;
        std::string object;
        bool ok;
        std::string out;  // checked on success, and for the partial text of a failed array
        std::string error;
    };
    // clang-format off
    const Row rows[] = {
        {'s', R"({"type":"string","value":"abc"})", true, "abc", ""},
        {'s', R"({"type":"array","value":[{"type":"array","value":[{"type":"int","value":1}]},{"type":"var","value":"EXIT_PID"}]})", true, "1  11 ", ""},
        {'s', R"({"type":"xfs","value":")" + r + R"(/lf"})", true, "5", ""},
        {'s', R"({"type":"xfs","value":")" + r + R"(/crlf"})", true, "5\r", ""},
        {'s', R"({"type":"xfs","value":")" + r + R"(/long"})", true, std::string(255, 'x'), ""},
        {'s', R"({"type":"xfs","value":")" + r + R"(/onlylf"})", false, "", ""},
        {'s', R"({"type":"xfs","value":")" + r + R"(/missing"})", false, "", ""},
        {'s', R"({"type":"prop","value":"test.value"})", true, "on", ""},
        {'s', R"({"type":"prop","value":"test.empty"})", false, "", "failed to get system property test.empty or value is .(ret = 0) @"},
        {'s', R"({"type":"var","value":"PID"})", true, "21", ""},
        {'s', R"({"type":"var","value":"GLTID"})", false, "", ""},  // unknown id: silent
        {'S', R"({"type":"var","value":"PID"})", false, "", ""},  // no record: silent
        {'s', R"({"type":"var","value":"pid"})", false, "", "Unknown var(pid) @"},
        {'s', R"({"type":"int","value":"5"})", false, "", "Unknown type(int). @"},
        {'s', R"({"type":"string","value":5})", false, "", "\"value\" type(int) doesn't match \"type\"(string) @"},
        {'s', R"({"type":"int","value":1.5})", false, "", "\"value\" is not a string or int. @"},
        {'s', R"({"type":"binary","value":"12"})", false, "", "\"binary\" type is not supported to convert to string. @"},
        {'s', R"({"type":"array","value":"a"})", false, "", "\"value\" is not an array. @"},
        {'s', R"({"type":"array","value":[{"type":"string","value":"a"},5]})", false, "a ", "\"type\" must be a string. (fetch )"},
        {'i', R"({"type":"int","value":7})", true, "7", ""},
        {'i', R"({"type":"string","value":"42abc"})", true, "42", ""},
        {'i', R"({"type":"string","value":"abc"})", true, "0", ""},
        {'i', R"({"type":"int","value":4294967296})", false, "", "\"value\" is not a string or int. @"},
        {'i', R"({"type":"xfs","value":"/x"})", false, "", "\"xfs\" type is not supported. @"},
        {'i', R"({"type":"ioctl","value":"x"})", false, "", "\"ioctl\" type is not supported to convert to int. @"},
        {'i', R"({"type":"other","value":"1"})", false, "", "Unknown type(other). @"},
        {'b', R"({"type":"binary","value":"12 34 AB"})", true, "\x12\x34\xAB", ""},
        {'b', R"({"type":"binary","value":"12:34\u0001CD"})", true, "\x12\x34\xCD", ""},
        // Lower-case low digits also set bit 5; lower-case high digits are harmless.
        {'b', R"({"type":"binary","value":"0a 1a 0A fF cd"})", true, "\x2A\x3A\x0A\xFF\xED", ""},
        {'b', R"({"type":"binary","value":"12 3"})", false, "", "Invalid hex string termination.\n\"value\" is an invalid hex string @"},
        {'b', R"({"type":"binary","value":""})", false, "", "Invalid hex string termination.\n\"value\" is an invalid hex string @"},
        {'b', R"({"type":"binary","value":"12 x4"})", false, std::string("\x12\0", 2), "Invalid hex char(x)\n\"value\" is an invalid hex string @"},
        {'b', R"({"type":"binary","value":"1g"})", false, "", "Invalid hex char(g)\n\"value\" is an invalid hex string @"},
        {'b', R"({"type":"string","value":"12"})", false, "", "\"string\" type is not supported to convert to byte array. @"},
        {'b', R"({"type":"binary","value":12})", false, "", "\"value\" is not a string. @"},
    };
    // clang-format on
    for (const Row& row : rows) {
        std::string out;
        mLog.clear();
        EXPECT_EQ(row.ok, convert(row.kind, row.object, out) == 0) << row.object;
        if (row.ok || !row.out.empty()) {
            EXPECT_EQ(row.out, out) << row.object;
        }
        EXPECT_EQ(row.error, errors()) << row.object;
    }
}

}  // namespace
