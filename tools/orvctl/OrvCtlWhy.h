#pragma once
// "orvctl why [--json] TARGET [POLICY]": a node's or property's value now, the method of the
// policy that wrote it, and what will change it next. From orvd's dump and the policy in force,
// replayed in the simulator; what the replay infers is said as such.
#include <json/json.h>

#include <string>
#include <vector>

#include "tools/sim/OrvSimulator.h"

class OrvCtlSession;

class OrvCtlWhy {
  public:
    explicit OrvCtlWhy(OrvCtlSession& session) : mSession(session) {}
    int run(const std::vector<std::string>& args);

    // Where in the document the method that the engine names `method` lies, as the document
    // path the checker uses: "com.a.action.run.policy[0]xfs" is
    // "applications.com.a.action.run.policy[0]"; a set taken through "reference" lies in the
    // application it names.
    static std::string documentPath(const std::string& method, const Json::Value& root);

  private:
    struct Write {
        bool found = false;
        std::string value;
        std::string method;
        std::string place;  // FILE:LINE:COL, or FILE alone
        int line = 0, column = 0;
    };
    struct Next {
        std::string when;
        Write write;
    };

    // The last write of the target in `steps` from `from` on (the first when `first`).
    Write findWrite(const std::vector<OrvSimulator::Step>& steps, size_t from, bool first) const;
    void place(Write& w) const;
    // Replays the dump's way, then `words`, and what they do to the target.
    bool predict(const std::string& dump, const std::vector<std::vector<std::string>>& events,
                 const std::string& when, std::vector<Next>& out) const;
    std::vector<std::pair<std::string, std::vector<std::vector<std::string>>>> endsOf(
        const std::string& dump) const;

    OrvCtlSession& mSession;
    std::string mTarget;
    bool mProperty = false;
    std::string mPolicy;
    Json::Value mRoot;
    std::string mJson;
};
