#pragma once
#include <json/json.h>

#include <string>

// Finds the loops a policy document can send the executor into: "param" and "action"
// references that lead back to where they started, and groups that end up running themselves.
class OrvCycleCheck {
  public:
    // Empty when the document has none; otherwise the first loop found, as a log text such as
    // "param reference cycle: com.a -> com.b -> com.a".
    static std::string find(const Json::Value& root);

  private:
    static std::string findReferenceCycle(const Json::Value& apps, const char* section);
    static std::string findGroupCycle(const Json::Value& groups);
};
