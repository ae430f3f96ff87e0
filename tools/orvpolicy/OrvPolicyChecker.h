#pragma once
// Reads a whole policy document as orvd's engine would and reports what would go wrong.
#include <json/json.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "tools/orvpolicy/OrvPolicyMethodChecker.h"
#include "tools/orvpolicy/OrvPolicyReport.h"

class OrvPolicyChecker {
  public:
    OrvPolicyChecker(const Json::Value& root, bool fromProtectedFile, OrvPolicyReport& report)
        : mRoot(root), mReport(report), mMethods(report, fromProtectedFile) {}

    void run();

    // The number the engine reads from a version text ("v1.5" gives 1.5, "1.5" gives 0.5).
    static float parseVersion(const std::string& text);
    // Every parameter orvd asks for.
    static std::vector<std::string> knownParams();
    // " (did you mean X?)" for the name among `names` that `word` is a likely typo of.
    static std::string suggest(const std::string& word, const std::vector<std::string>& names);

  private:
    void checkVersion(const char* key, bool isParser);
    void checkApplication(const std::string& name, const Json::Value& app);
    void checkParams(const std::string& name, const Json::Value& params);
    void checkReference(const std::string& app, const char* section, const Json::Value& ref);
    void checkReferenceCycles(const char* section);
    void checkGroupCycles();
    void checkSet(const std::string& loc, const Json::Value& set);
    // Whether running `set` issues an ioctl, through groups too (each group looked at once).
    bool usesIoctl(const Json::Value& set, std::set<std::string>& seenGroups);
    void checkMethod(const std::string& loc, const Json::Value& m);

    const Json::Value& mRoot;
    OrvPolicyReport& mReport;
    OrvPolicyMethodChecker mMethods;
    std::set<std::string> mCheckedGroups;
    // Groups loop or nest too deep: the walks that descend into groups would not end (or not
    // on this stack), so they stay at the top level.
    bool mGroupWalkUnsafe = false;
    std::map<std::string, std::vector<std::string>> mGroupUses;  // group to the methods that run it
};
