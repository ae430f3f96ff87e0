#pragma once
// The findings of one policy document, in the order they were found.
#include <string>
#include <vector>

class OrvPolicyReport {
  public:
    enum Severity { WARNING, ERROR };
    struct Finding {
        Severity severity;
        std::string location;  // the engine's dotted form, or a top-level key
        std::string message;
    };

    void error(const std::string& location, const std::string& message) {
        mFindings.push_back({ERROR, location, message});
    }
    void warning(const std::string& location, const std::string& message) {
        mFindings.push_back({WARNING, location, message});
    }
    const std::vector<Finding>& findings() const { return mFindings; }
    int errorCount() const;
    // "FILE: error: LOCATION: message", one line per finding.
    std::string format(const std::string& file) const;

  private:
    std::vector<Finding> mFindings;
};
