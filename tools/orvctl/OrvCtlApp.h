#pragma once
// orvctl's command line: options, one command, exit status.
#include <stdio.h>

#include <string>
#include <vector>

#include "tools/orvctl/OrvCtlCommand.h"
#include "tools/orvctl/OrvCtlSession.h"

class OrvCtlApp {
  public:
    int run(int argc, char** argv);

  private:
    int runCommand(const OrvCtlCommand& cmd, const std::string& label);
    int runMessage(OrvConnection& conn, const OrvCtlCommand& cmd, const std::string& label);
    int runReplay(const std::string& path);

    OrvCtlSession mSession;
    // A replay keeps one connection for all its lines, so its messages stay in order.
    OrvConnection* mShared = nullptr;
};
