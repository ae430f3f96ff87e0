#pragma once
// What every orvctl command shares: where orvd listens, how long to wait for it and for its
// replies, and its log file. Sub-commands get this, never the command line that made it.
#include <string>

#include "client/include/orv/OrvConnection.h"

class OrvCtlSession {
  public:
    enum Exit {
        EXIT_OK = 0,
        EXIT_USAGE = 1,
        EXIT_UNREACHABLE = 2,
        EXIT_NO_REPLY = 3,
        EXIT_REFUSED = 4,
    };

    struct Options {
        std::string socket;   // --socket; empty for orvd's own
        std::string logPath;  // --log; empty when none
        int timeoutMs = 2000;
        int waitMs = 0;  // --wait
    };

    OrvCtlSession() = default;
    explicit OrvCtlSession(const Options& options) : mOptions(options) {}

    // Connects, first waiting up to --wait for the socket to answer; prints why it cannot.
    bool connect(OrvConnection& conn);
    // Sends one message that has a reply and returns the reply's text; EXIT_OK or the failure
    // after it was printed.
    int query(int code, const std::string& payload, std::string& answer);
    // Reads the reply to a message of `sent` from `conn`; prints what went wrong.
    int readReply(OrvConnection& conn, int sent, const std::string& label, int& code,
                  std::string& text);

    int timeoutMs() const { return mOptions.timeoutMs; }
    // What --wait asked for; 0 once a connection was made.
    int waitMs() const { return mOptions.waitMs; }
    // The daemon's log file given with --log; empty when none.
    const std::string& logPath() const { return mOptions.logPath; }

  private:
    Options mOptions;
};
