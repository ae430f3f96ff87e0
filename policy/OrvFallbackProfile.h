#pragma once
#include <json/json.h>

#include <map>
#include <set>
#include <string>

// The application entry "*": what every application the policy does not list runs, and what a
// listed one runs for a state it does not define. Read once from the document as loaded, since
// lookups later add members to it. An entry that defines nothing covers nothing.
class OrvFallbackProfile {
  public:
    static const char* const kName;  // "*"

    explicit OrvFallbackProfile(const Json::Value* root);

    bool active() const { return mActive; }
    // Whether the document as loaded names `app` under "applications".
    bool isListed(const std::string& app) const { return mListed.count(app) != 0; }
    // Whether `app`, or an application its "action" refers to, has `state` (even empty).
    bool definesState(const std::string& app, const char* state) const;
    // The application whose entry answers for `app`: "*" for an unlisted one while active.
    std::string entryFor(const char* app) const;
    // The "reference" that names the fallback, for the bookkeeping of a set taken from it.
    Json::Value* referenceName() { return &mName; }

  private:
    bool mActive = false;
    std::set<std::string> mListed;
    std::set<std::string> mDefined;  // application "\n" state
    std::map<std::string, std::string> mActionReference;
    Json::Value mName;
};
