#pragma once
// A policy file as orvd would read it: plain JSON first, else a protected file.
#include <json/json.h>

#include <string>
#include <vector>

class OrvPolicyDocument {
  public:
    enum Status { OK, UNREADABLE, INVALID };

    Status load(const std::string& path);

    bool isProtected() const { return mProtected; }
    const Json::Value& root() const { return mRoot; }
    // The JSON text (decoded when the file is protected).
    const std::string& json() const { return mJson; }
    // Why the file is not usable: "LINE:COL: text" for syntax errors, else one sentence.
    const std::vector<std::string>& problems() const { return mProblems; }

    // Reads a whole file; false when it cannot be read.
    static bool readFile(const std::string& path, std::string& out);
    // Parses like the engine (comments allowed); on failure fills "LINE:COL: message" lines.
    static bool parse(const std::string& text, Json::Value& root,
                      std::vector<std::string>& problems);

  private:
    bool mProtected = false;
    Json::Value mRoot;
    std::string mJson;
    std::vector<std::string> mProblems;
};
