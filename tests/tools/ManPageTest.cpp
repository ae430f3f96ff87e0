// The manual pages render cleanly and name every command the programs' --help names.
#include <gtest/gtest.h>

#include <sstream>

#include "support/ToolRun.h"

using namespace orvtest;

TEST(ManPages, RenderAndCoverEveryCommand) {
    TempRoot root;
    const struct {
        const char* page;
        const char* tool;  // whose --help lists the commands; null for none
    } pages[] = {{"orvd.8", nullptr},
                 {"orvctl.8", "orvctl"},
                 {"orvpolicy.1", "orvpolicy"},
                 {"orvpolicy.5", nullptr}};
    for (const auto& p : pages) {
        const std::string page = source("docs/man/") + p.page;
        const std::string check = "groff -man -ww -z " + shellQuote(page) + " 2>&1";
        FILE* out = popen(check.c_str(), "r");
        ASSERT_NE(out, nullptr);
        char buf[256];
        std::string warnings;
        while (fgets(buf, sizeof(buf), out)) warnings += buf;
        if (pclose(out) != 0 && warnings.find("not found") != std::string::npos)
            GTEST_SKIP() << "groff is not installed";
        EXPECT_EQ(warnings, "") << p.page;
        if (!p.tool) continue;
        const std::string text = readFile(page);
        std::istringstream help(runTool(root, p.tool, "--help").out);
        std::string line;
        while (std::getline(help, line)) {
            // "  dump   ..." (orvctl) and "usage: orvpolicy check ..." / "       orvpolicy info ..."
            std::istringstream words(line);
            std::string first, second;
            words >> first >> second;
            std::string command = line.compare(0, 2, "  ") == 0 && line[2] != ' ' ? first : "";
            if (first == "usage:" || first == p.tool) command = first == p.tool ? second : "";
            if (first == "usage:" && second == p.tool) words >> command;
            if (command.empty() || command[0] == '-' || command[0] == '[') continue;
            std::string roff;
            for (char c : command) roff += c == '-' ? std::string("\\-") : std::string(1, c);
            EXPECT_NE(text.find(roff), std::string::npos) << p.page << " lacks " << command;
        }
    }
}

TEST(BashCompletion, OffersWhatTheProgramsTake) {
    TempRoot root;
    const struct {
        const char* script;
        const char* line;  // the words typed so far; the last one is being completed
        const char* offered;
    } cases[] = {
        {"orvctl", "orvctl mon", "monitor"},
        {"orvctl", "orvctl --wait ver", "verify"},
        {"orvctl", "orvctl gesture ", "down press tap scroll fling long-press"},
        {"orvctl", "orvctl --wa", "--wait --wait="},
        {"orvctl", "orvctl dump ", ""},
        {"orvpolicy", "orvpolicy si", "simulate"},
        {"orvpolicy", "orvpolicy check --format ", "text json"},
        {"orvpolicy", "orvpolicy protect --f", "--force"},
    };
    for (const auto& c : cases) {
        const std::string script =
            "source " + shellQuote(source("scripts/bash-completion/") + c.script) +
            "; read -ra COMP_WORDS <<< " + shellQuote(c.line) + "; " +
            (std::string(c.line).back() == ' ' ? "COMP_WORDS+=(''); " : "") +
            "COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _" + c.script + "; echo \"${COMPREPLY[*]}\"";
        const std::string out = root / "offered";
        ASSERT_EQ(system(("bash -c " + shellQuote(script) + " >" + shellQuote(out)).c_str()), 0);
        EXPECT_EQ(readFile(out), std::string(c.offered) + "\n") << c.line;
    }
}
