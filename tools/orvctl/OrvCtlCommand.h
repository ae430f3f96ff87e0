#pragma once
// One orvctl command, as typed on the command line or written on a line of a trace.
#include <string>
#include <vector>

class OrvCtlCommand {
  public:
    enum Kind {
        MESSAGE,  // a frame for the daemon
        PAUSE,    // "sleep MS" inside a trace
        GETPROP,
        SETPROP,
        REPLAY,
    };

    Kind kind = MESSAGE;
    int code = 0;
    std::string payload;
    // Whether orvd answers this message; queries and unknown codes do.
    bool expectsReply = false;
    // Queries print only the answer text; "send" prints the whole reply.
    bool printCode = false;
    int pauseMs = 0;
    std::string arg1;  // property name or trace path
    std::string arg2;  // property value

    // Parses `words` (the command name first). `inTrace` allows "sleep MS" and forbids "replay".
    static bool parse(const std::vector<std::string>& words, bool inTrace, OrvCtlCommand& out,
                      std::string& error);
    // The summary of every command for --help.
    static const char* usage();
};
