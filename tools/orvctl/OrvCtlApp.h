#pragma once
// orvctl's command line: options, one command, exit status.
#include <stdio.h>

#include <string>
#include <vector>

#include "tools/orvctl/OrvCtlCommand.h"
#include "tools/orvctl/OrvCtlConnection.h"

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

  private:
    int runCommand(const OrvCtlCommand& cmd, const std::string& label);
    int runMessage(OrvCtlConnection& conn, const OrvCtlCommand& cmd, const std::string& label);
    int runReplay(const std::string& path);
    bool connect(OrvCtlConnection& conn);

    std::string mSocket;
    int mTimeoutMs = 2000;
    // A replay keeps one connection for all its lines, so its messages stay in order.
    OrvCtlConnection* mShared = nullptr;
};
