#pragma once
// Runs a built program with a shell command line and collects its exit status and output.
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "support/OrvTestSupport.h"

namespace orvtest {

struct ToolResult {
    int status = -1;
    std::string out;
    std::string err;
};

inline std::string bin(const std::string& name) {
    return std::string(ORV_BIN_DIR) + "/" + name;
}
inline std::string source(const std::string& rel) {
    return std::string(ORV_SOURCE_DIR) + "/" + rel;
}

inline std::string shellQuote(const std::string& s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

// `args` is already a shell fragment; ORV_ROOT is inherited from the test's environment.
inline ToolResult runTool(const TempRoot& root, const std::string& tool, const std::string& args) {
    std::string out = root / "tool.out", err = root / "tool.err";
    std::string cmd =
        shellQuote(bin(tool)) + " " + args + " >" + shellQuote(out) + " 2>" + shellQuote(err);
    ToolResult r;
    int s = system(cmd.c_str());
    r.status = WIFEXITED(s) ? WEXITSTATUS(s) : -1;
    r.out = readFile(out);
    r.err = readFile(err);
    return r;
}

}  // namespace orvtest
