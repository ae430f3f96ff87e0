#pragma once
// "orvpolicy simulate POLICY TRACE": what orvd would do with a session, printed per event.
#include <string>
#include <vector>

#include "tools/sim/OrvSimulator.h"

class OrvPolicySimulate {
  public:
    // Exit status as orvpolicy's: 0 done, 1 the policy or trace is refused, 2 unreadable,
    // 3 usage error.
    int run(const std::vector<std::string>& args);

    static std::string formatText(const OrvSimulator::Step& step, int number);
    static std::string formatJson(const OrvSimulator::Step& step, int number);
    static std::string formatTable(const OrvVirtualDevice& device, bool json);
};
