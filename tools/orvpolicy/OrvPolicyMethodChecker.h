#pragma once
// Judges one method object the way orvd's handlers would treat it when it runs.
#include <json/json.h>

#include <string>

#include "tools/orvpolicy/OrvPolicyReport.h"

class OrvPolicyMethodChecker {
  public:
    OrvPolicyMethodChecker(OrvPolicyReport& report, bool fromProtectedFile)
        : mReport(report), mProtected(fromProtectedFile) {}

    // Checks a method object other than "group" (groups need the whole document).
    // `method` is its "method" text.
    void check(const std::string& loc, const std::string& method, const Json::Value& m);

    static bool isKnownMethod(const std::string& method);

  private:
    // The three value conversions; `what` prefixes messages about nested array elements.
    bool checkText(const std::string& loc, const Json::Value& m, const std::string& what);
    bool checkInt(const std::string& loc, const Json::Value& m);
    bool checkBytes(const std::string& loc, const Json::Value& m, size_t& count);
    void checkIoctl(const std::string& loc, const Json::Value& m);
    void checkOrvIoctl(const std::string& loc, const Json::Value& m);
    bool checkPath(const std::string& loc, const Json::Value& m);
    void checkPropertyName(const std::string& loc, const std::string& name);
    void checkUnknownKeys(const std::string& loc, const std::string& method, const Json::Value& m);

    OrvPolicyReport& mReport;
    bool mProtected;
};
