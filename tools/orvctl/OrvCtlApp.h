#pragma once
// orvctl's command line: options, one command, exit status.
#include <stdio.h>

#include <string>
#include <vector>

#include "client/include/orv/OrvConnection.h"
#include "tools/orvctl/OrvCtlCommand.h"

class OrvCtlApp {
  public:
    enum Exit {
        EXIT_OK = 0,
        EXIT_USAGE = 1,
        EXIT_UNREACHABLE = 2,
        EXIT_NO_REPLY = 3,
        EXIT_REFUSED = 4,
    };

    int run(int argc, char** argv);

    // Connects, first waiting up to --wait for the socket to answer; prints why it cannot.
    bool connect(OrvConnection& conn);
    // Sends one message that has a reply and returns the reply's text; EXIT_OK or the failure
    // after it was printed.
    int query(int code, const std::string& payload, std::string& answer);

    int timeoutMs() const { return mTimeoutMs; }
    // What --wait asked for; 0 once a connection was made.
    int waitMs() const { return mWaitMs; }
    // The daemon's log file given with --log; empty when none.
    const std::string& logPath() const { return mLogPath; }

  private:
    int runCommand(const OrvCtlCommand& cmd, const std::string& label);
    int runMessage(OrvConnection& conn, const OrvCtlCommand& cmd, const std::string& label);
    int runReplay(const std::string& path);
    // Reads one reply of `cmd` from `conn`; prints what went wrong.
    int readReply(OrvConnection& conn, const OrvCtlCommand& cmd, const std::string& label,
                  int& code, std::string& text);

    std::string mSocket;
    std::string mLogPath;
    int mTimeoutMs = 2000;
    int mWaitMs = 0;
    // A replay keeps one connection for all its lines, so its messages stay in order.
    OrvConnection* mShared = nullptr;
};
