#pragma once
// "orvctl verify [POLICY]": the value each node and property should hold for the application
// and state orvd is in, worked out by the simulator, compared with what the device holds.
#include <string>
#include <vector>

#include "tools/sim/OrvSimulator.h"

class OrvCtlSession;

class OrvCtlVerify {
  public:
    explicit OrvCtlVerify(OrvCtlSession& session) : mSession(session) {}
    // 0 everything as the policy wants, 1 differences, else orvctl's failure codes.
    int run(const std::vector<std::string>& args);

    // The events that take a fresh orvd from reset to `state` of `app`, in orvctl's words.
    static std::vector<std::vector<std::string>> pathTo(const std::string& app,
                                                        const std::string& state, int pid,
                                                        int glTid);
    // A field of the dump's context section ("App", "State", ...); empty when absent.
    static std::string dumpField(const std::string& dump, const std::string& name);
    // What the device holds now: a node's text without its last line break, a property.
    static std::string liveNode(const std::string& path);
    static std::string liveProperty(const std::string& name);
    // The policy file orvd reads, in its order of places.
    static std::string policyInForce();
    // Starts `sim` on `policy` and takes it the shortest way to the application and state of
    // `dump`; the start-up reset and every step after it go to `steps`.
    static bool reach(OrvSimulator& sim, const std::string& policy, const std::string& dump,
                      std::vector<OrvSimulator::Step>& steps, std::string& error);

  private:
    OrvCtlSession& mSession;
};
