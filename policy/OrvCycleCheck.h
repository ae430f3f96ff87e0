#pragma once
#include <json/json.h>

#include <string>
#include <unordered_map>
#include <vector>

// Finds the loops a policy document can send the executor into: "param" and "action"
// references that lead back to where they started, and groups that end up running themselves.
class OrvCycleCheck {
  public:
    // Empty when the document has none; otherwise the first loop found, as a log text such as
    // "param reference cycle: com.a -> com.b -> com.a".
    static std::string find(const Json::Value& root);

  private:
    enum { kParam = 0, kAction = 1 };
    // Applications whose "param" or "action" names another, in document order.
    struct Referrer {
        const Json::Value* app;
        const char* name;  // its member name, as the document holds it
        const char* nameEnd;
        const char* ref[2];  // by section; null when it names none
    };
    struct Referrers {
        std::vector<Referrer> list;
        std::unordered_map<const Json::Value*, size_t> index;  // application -> its place in list
    };
    static Referrers findReferrers(const Json::Value& apps);
    static std::string findReferenceCycle(const Json::Value& apps, const Referrers& referrers,
                                          int section);
    static std::string findGroupCycle(const Json::Value& groups);
};
