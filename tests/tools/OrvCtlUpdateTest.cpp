// orvctl's --version, and "update" checking, sending and confirming a policy file.
#include <gtest/gtest.h>

#include "tools/ExampleDaemon.h"

using namespace orvtest;

// Every tool prints its version; orvd answers what it knows and refuses the rest before
// anything starts: no log, no socket.
TEST(Tools, VersionsAndOrvdArguments) {
    TempRoot root;
    const std::string usage = "usage: orvd [--version | --help]\n";
    const struct {
        const char* tool;
        const char* args;
        int status;
        std::string out, err;
    } rows[] = {
        {"orvd", "--version", 0, "orvd 1.0\n", ""},
        {"orvctl", "--version", 0, "orvctl 1.0\n", ""},
        {"orvpolicy", "--version", 0, "orvpolicy 1.0\n", ""},
        {"orvd", "--help", 0, usage, ""},
        {"orvd", "--bogus", 2, "", usage},
        {"orvd", "--version --help", 2, "", usage},
        {"orvd", "''", 2, "", usage},  // an empty argument is still one
    };
    for (const auto& r : rows) {
        ToolResult got = runTool(root, r.tool, r.args);
        EXPECT_EQ(r.status, got.status) << r.tool << " " << r.args;
        EXPECT_EQ(r.out, got.out) << r.tool << " " << r.args;
        EXPECT_EQ(r.err, got.err) << r.tool << " " << r.args;
    }
    EXPECT_FALSE(std::filesystem::exists(root / "dev/socket/orvd"));
}

TEST(OrvCtlUpdate, ChecksSendsAndConfirms) {
    TempRoot root;
    ExampleDaemon orvd(root, false);
    ASSERT_TRUE(orvd.ready()) << orvd.log();
    const std::string policy = readFile(root / "data/orvpolicy");  // version v2.3
    auto withVersion = [&](const std::string& v) {
        std::string doc = policy;
        doc.replace(doc.find("\"v2.3\""), 6, "\"" + v + "\"");
        return doc;
    };
    const struct {
        const char* name;
        std::string content;
        bool withLog;
        int status;
        const char* says;  // part of the output
        bool sent;         // orvd took the file away
    } cases[] = {
        {"older", withVersion("v2.0"), false, 4, "loads only newer versions; nothing sent", false},
        {"same", withVersion("v2.3"), false, 4, "orvd runs v2.3 (2.30)", false},
        {"not JSON", "{ \"parser\": ", false, 4, "orvd would refuse", false},
        {"newer", withVersion("v3.0"), false, 0, "accepted: version v3.0", true},
        {"newer, confirmed from the log", withVersion("v4.0"), true, 0, "accepted: version v4.0",
         true},
    };
    for (const auto& c : cases) {
        const std::string file = root.write("new.json", c.content);
        const std::string log = c.withLog ? "--log " + shellQuote(root / "orvd.log") + " " : "";
        // orvd loads the file on its own thread: a generous time-out for its verdict.
        ToolResult r = runTool(root, "orvctl", log + "--timeout 20000 update " + shellQuote(file));
        EXPECT_EQ(r.status, c.status) << c.name << ": " << r.err << orvd.log();
        EXPECT_NE((r.out + r.err).find(c.says), std::string::npos)
            << c.name << ": " << r.out << r.err;
        EXPECT_EQ(access(file.c_str(), F_OK) != 0, c.sent) << c.name;
        if (c.sent) {
            EXPECT_EQ(readFile(root / "data/orvpolicy"), c.content) << c.name;
        }
        unlink(file.c_str());
    }
}
