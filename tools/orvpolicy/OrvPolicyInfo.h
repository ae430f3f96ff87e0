#pragma once
// The summary that "orvpolicy info" prints.
#include <json/json.h>

#include <map>
#include <string>

class OrvPolicyInfo {
  public:
    explicit OrvPolicyInfo(const Json::Value& root);

    int applications = 0;
    int referencing = 0;  // applications that take their actions through "reference"
    int groups = 0;
    std::map<std::string, int> methods;  // method name to the number of method objects

    int methodCount() const;
    std::string format(const std::string& file, bool isProtected) const;
    // Which action sets each application has per state (its own, or "*" through "reference":
    // e on_enter, p policy, x on_exit), then every group with the groups it runs.
    std::string formatApps() const;

  private:
    // The fallback entry, state time-outs and "on_stop", when the policy has them.
    std::string formatBounds() const;
    void countSet(const Json::Value& set);
    const Json::Value& mRoot;
};
