#pragma once
// A trace file for "orvctl replay": one command a line in orvctl's own words.
#include <string>
#include <vector>

#include "tools/orvctl/OrvCtlCommand.h"

class OrvCtlTrace {
  public:
    struct Step {
        int line;
        std::string text;  // the line without its comment, for messages
        OrvCtlCommand command;
    };
    enum Result { OK, UNREADABLE, BAD_LINES };

    // Parses the whole file before anything is sent, so a typo on line 40 does not leave the
    // daemon half-way through a session. Every bad line is reported as "FILE:LINE: text".
    static Result load(const std::string& path, std::vector<Step>& steps,
                       std::vector<std::string>& errors);
    // Splits a line into words: blanks separate, "#" starts a comment, "..." keeps blanks.
    static bool split(const std::string& line, std::vector<std::string>& words, std::string& error);
};
