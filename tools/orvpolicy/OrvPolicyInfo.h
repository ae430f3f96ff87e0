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

  private:
    void countSet(const Json::Value& set);
    const Json::Value& mRoot;
};
