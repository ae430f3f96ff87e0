#pragma once
// orvpolicy's command line: check, info, protect, unprotect.
#include <functional>
#include <string>
#include <vector>

#include "tools/orvpolicy/OrvPolicyReport.h"

class OrvPolicyDocument;

class OrvPolicyApp {
  public:
    enum Exit { EXIT_OK = 0, EXIT_FINDINGS = 1, EXIT_UNREADABLE = 2, EXIT_USAGE = 3 };

    int run(int argc, char** argv);

  private:
    // Loads each file and hands the readable ones to `judge`, which returns true on findings.
    using Judge = std::function<bool(const std::string& file, const OrvPolicyDocument& doc)>;
    int forEachDocument(const std::vector<std::string>& files, const Judge& judge);
    int check(const std::vector<std::string>& args);
    // Every finding of a loaded document, duplicate keys included, placed in its text.
    static OrvPolicyReport judge(const OrvPolicyDocument& doc, bool asProtected);
    int info(const std::vector<std::string>& files);
    int protect(const std::vector<std::string>& args);
    int unprotect(const std::vector<std::string>& args);
    static bool writeFile(const std::string& path, const std::string& data);
};
