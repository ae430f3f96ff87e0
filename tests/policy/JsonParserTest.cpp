// The quick parser against JsonCpp's reader: whatever it takes must come out as the reader's
// tree, value types included; what it declines is left to the reader.
#include <gtest/gtest.h>
#include <json/json.h>

#include <fstream>
#include <iterator>
#include <string>

#include "policy/OrvJsonParser.h"

namespace {

enum Expect { kSameTree, kDeclined };

struct Case {
    const char* what;
    std::string doc;
    Expect expect;
};

const Case kCases[] = {
    {"nested objects and arrays", R"({"a":{"b":[1,[2,{}],[]],"c":{}},"d":[]})", kSameTree},
    {"scalars", R"([true,false,null,"",0,-0,7,-7,007])", kSameTree},
    {"integer types at INT_MAX", R"([2147483647,2147483648,-2147483648,-2147483649])", kSameTree},
    {"largest integer taken", R"([999999999999999999,-999999999999999999])", kSameTree},
    {"repeated member: the last wins", R"({"a":{"x":1},"b":2,"a":"s"})", kSameTree},
    {"whitespace of every kind", " \t\r\n{ \"a\" \t:\r\n[ 1 ,\n2 ] }\n ", kSameTree},
    {"comments where the reader takes them",
     "// head\n{ /* before name */ \"a\": /* before value */ 1 // after value\n,\r\"b\":[ 1 /**/ "
     ", // x\r 2 ] } /* tail */",
     kSameTree},
    {"empty object with a comment", "{ /* nothing */ }", kSameTree},
    {"escape in a member name", "{\"k\\u00e9y\":1}", kDeclined},
    {"UTF-8 and a tab in a string", "[\"caf\xc3\xa9\t\"]", kSameTree},
    {"root scalar", "\"just text\"", kSameTree},
    {"escapes", R"(["a\"b", "\n"])", kDeclined},
    {"fraction", "[1.5]", kDeclined},
    {"exponent", "[1e3]", kDeclined},
    {"nineteen digits", "[1234567890123456789]", kDeclined},
    {"lone minus", "[-]", kDeclined},
    {"trailing comma in object", R"({"":1,})", kDeclined},
    {"trailing comma in array", "[1,]", kDeclined},
    {"comment before a colon", R"({"a" /* c */ : 1})", kDeclined},
    {"comment in an empty array", "[ /* c */ ]", kDeclined},
    {"text after the root", "{} x", kDeclined},
    {"unterminated comment", "{} /* open", kDeclined},
    {"unterminated string", R"({"a":"b)", kDeclined},
    {"misspelt word", "[tru]", kDeclined},
    {"word run on", "[truex]", kDeclined},
    {"missing comma", R"({"a":1 "b":2})", kDeclined},
    {"empty text", "", kDeclined},
    {"NUL after the root", std::string("{}\0", 3), kDeclined},
    {"NUL inside a string", std::string("[\"a\0b\"]", 7), kSameTree},
};

// Json::Value's == compares values but lets 1 and 1u be equal; types are compared here too.
void expectSame(const Json::Value& want, const Json::Value& got, const std::string& at) {
    ASSERT_EQ(want.type(), got.type()) << at;
    if (want.isObject()) {
        ASSERT_EQ(want.getMemberNames(), got.getMemberNames()) << at;
        for (const std::string& name : want.getMemberNames())
            expectSame(want[name], got[name], at + "." + name);
    } else if (want.isArray()) {
        ASSERT_EQ(want.size(), got.size()) << at;
        for (Json::ArrayIndex i = 0; i < want.size(); ++i)
            expectSame(want[i], got[i], at + "[" + std::to_string(i) + "]");
    } else {
        EXPECT_EQ(want, got) << at;
    }
}

void check(const std::string& what, const std::string& doc, Expect expect) {
    Json::Value fast, slow;
    const bool took = OrvJsonParser::parse(doc.data(), doc.data() + doc.size(), 900, fast);
    const bool readerTook = Json::Reader().parse(doc.data(), doc.data() + doc.size(), slow, true);
    if (expect == kDeclined) {
        EXPECT_FALSE(took) << what;
        return;
    }
    ASSERT_TRUE(took) << what;
    ASSERT_TRUE(readerTook) << what << ": taken here but refused by the reader";
    expectSame(slow, fast, what);
}

TEST(JsonParser, TakesWhatTheReaderTakesAsTheReaderDoesAndDeclinesTheRest) {
    for (const Case& c : kCases) check(c.what, c.doc, c.expect);
}

// The load scans for depth only what this parser declines, so it must decline every document
// nested deeper than it is told, counting brackets as that scan does.
TEST(JsonParser, DeclinesNestingBeyondItsLimit) {
    Json::Value root;
    const std::string three = R"({"a":[{"b":1}]})", four = R"({"a":[{"b":[]}]})";
    EXPECT_TRUE(OrvJsonParser::parse(three.data(), three.data() + three.size(), 3, root));
    EXPECT_FALSE(OrvJsonParser::parse(four.data(), four.data() + four.size(), 3, root));
    const std::string deep = std::string(901, '[') + std::string(901, ']');
    EXPECT_FALSE(OrvJsonParser::parse(deep.data(), deep.data() + deep.size(), 900, root));
    const std::string limit = std::string(900, '[') + std::string(900, ']');
    EXPECT_TRUE(OrvJsonParser::parse(limit.data(), limit.data() + limit.size(), 900, root));
}

TEST(JsonParser, ShippedExamplesParseToTheReadersTree) {
    for (const char* name : {"tablet-policy.json", "linux-cgroup-policy.json"}) {
        std::ifstream in(std::string(ORV_SOURCE_DIR "/examples/") + name);
        std::string doc((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        ASSERT_FALSE(doc.empty()) << name;
        check(name, doc, kSameTree);
    }
}

}  // namespace
