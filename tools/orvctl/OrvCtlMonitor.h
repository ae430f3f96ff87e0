#pragma once
// "orvctl monitor": a line per happening in orvd (events, state changes, action sets, effects,
// failures), read from its own log with debug lines on for as long as it runs.
#include <stdio.h>

#include <string>
#include <vector>

class OrvCtlSession;

class OrvCtlMonitor {
  public:
    explicit OrvCtlMonitor(OrvCtlSession& session) : mSession(session) {}
    int run(const std::vector<std::string>& args);

    // One log line in logcat's threadtime form as a monitor line; empty when it says nothing
    // a policy writer needs.
    static std::string describe(const std::string& logLine);

  private:
    OrvCtlSession& mSession;
};
