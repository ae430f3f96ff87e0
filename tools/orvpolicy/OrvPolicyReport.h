#pragma once
// The findings of one policy document, in the order they were found.
#include <json/json.h>

#include <string>
#include <vector>

class OrvPolicyKeyScan;

class OrvPolicyReport {
  public:
    enum Severity { WARNING, ERROR };
    struct Finding {
        Severity severity;
        std::string location;  // the engine's dotted form, or a top-level key
        std::string message;
        int line = 0;  // 0: not placed in the text
        int column = 0;
    };

    void error(const std::string& location, const std::string& message) {
        mFindings.push_back({ERROR, location, message});
    }
    void warning(const std::string& location, const std::string& message) {
        mFindings.push_back({WARNING, location, message});
    }
    std::vector<Finding>& findings() { return mFindings; }
    const std::vector<Finding>& findings() const { return mFindings; }
    int count(Severity severity) const;
    // --strict: every warning becomes an error.
    void promoteWarnings();
    // Gives each finding the line and column where its location starts in the text.
    void place(const OrvPolicyKeyScan& scan, const Json::Value& root);
    // "FILE:LINE:COL: error: LOCATION: message", one line per finding.
    std::string format(const std::string& file) const;
    // The findings as JSON objects, appended to `out`.
    void appendJson(const std::string& file, Json::Value& out) const;

    // The place in the document a checker location names: "com.a.action.run.policy[1]" is
    // under "applications", "…on_enter[0]g[2]" is element 2 of policy_group "g".
    static std::string documentPath(const std::string& location, const Json::Value& root);
    // The group a location lies inside, or empty.
    static std::string groupOf(const std::string& location);

  private:
    std::vector<Finding> mFindings;
};
