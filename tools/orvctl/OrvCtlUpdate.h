#pragma once
// "orvctl update PATH": checks a policy file as orvd will, hands it over and confirms the outcome.
#include <stddef.h>

#include <string>
#include <vector>

class OrvCtlSession;

class OrvCtlUpdate {
  public:
    explicit OrvCtlUpdate(OrvCtlSession& session) : mSession(session) {}
    int run(const std::vector<std::string>& args);

    // The policy version orvd runs, from its dump ("   PolicyDB version: v2.3"); empty when
    // the dump names none.
    static std::string versionInDump(const std::string& dump);

  private:
    // Waits for orvd's verdict: its log lines when --log is given, else the file being moved
    // away, which orvd does only with a file it accepted. `start` is the log's size before the
    // file was sent. 1 accepted, 0 refused, -1 unknown.
    int awaitOutcome(const std::string& path, size_t start);

    OrvCtlSession& mSession;
};
