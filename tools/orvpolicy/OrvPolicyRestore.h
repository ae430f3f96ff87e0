#pragma once
// Restore analysis: a node or property that entering a state writes must be written again when
// the state ends, or the boost outlives it.
#include <json/json.h>

#include <set>
#include <string>

#include "tools/orvpolicy/OrvPolicyReport.h"

class OrvPolicyRestore {
  public:
    OrvPolicyRestore(const Json::Value& root, OrvPolicyReport& report)
        : mRoot(root), mReport(report) {}
    void run();

  private:
    // "xfs PATH" and "prop NAME" targets a set writes, through its groups.
    void targets(const Json::Value& set, std::set<std::string>& out,
                 std::set<std::string>& seenGroups) const;
    std::set<std::string> targets(const Json::Value* set) const;
    // The set orvd runs for `app` in `state` under `key`, through "reference" as it does.
    // An application without the state anywhere on its chain takes it from "*".
    const Json::Value* resolve(const std::string& app, const std::string& state,
                               const char* key) const;
    bool fallbackActive() const;
    bool hasTimeout(const std::string& app, const std::string& state) const;

    const Json::Value& mRoot;
    OrvPolicyReport& mReport;
};
