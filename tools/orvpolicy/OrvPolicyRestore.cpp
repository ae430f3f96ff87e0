#include "tools/orvpolicy/OrvPolicyRestore.h"

#include <stdlib.h>

#include "protocol/include/orv/protocol.h"
#include "tools/orvpolicy/OrvPolicyStates.h"

namespace {

// "xfs <hierarchy>/<group>/cgroup.procs" (or "tasks") moves a process rather than setting a
// value: a move into any other group of the same hierarchy puts it back. Empty for other nodes.
std::string cgroupHierarchy(const std::string& target) {
    const size_t slash = target.rfind('/');
    if (target.compare(0, 4, "xfs ") != 0 || slash == std::string::npos) return "";
    const std::string file = target.substr(slash + 1);
    if (file != "cgroup.procs" && file != "tasks") return "";
    const size_t group = target.rfind('/', slash - 1);
    return group == std::string::npos ? "" : target.substr(0, group + 1) + "*/" + file;
}

bool isRestored(const std::string& target, const std::set<std::string>& restoring) {
    if (restoring.count(target)) return true;
    const std::string hierarchy = cgroupHierarchy(target);
    if (hierarchy.empty()) return false;
    for (const auto& r : restoring)
        if (r != target && cgroupHierarchy(r) == hierarchy) return true;
    return false;
}

}  // namespace

void OrvPolicyRestore::targets(const Json::Value& set, std::set<std::string>& out,
                               std::set<std::string>& seenGroups) const {
    if (!set.isArray()) return;
    const Json::Value& groups = mRoot["policy_group"];
    for (const auto& m : set) {
        if (!m.isObject() || !m["method"].isString() || !m["path"].isString()) continue;
        const std::string method = m["method"].asString(), path = m["path"].asString();
        if (method == "xfs" || method == "prop") {
            out.insert(method + " " + path);
        } else if (method == "group" && groups.isObject() && groups.isMember(path) &&
                   seenGroups.insert(path).second) {
            targets(groups[path], out, seenGroups);
        }
    }
}

std::set<std::string> OrvPolicyRestore::targets(const Json::Value* set) const {
    std::set<std::string> out, seen;
    if (set) targets(*set, out, seen);
    return out;
}

const Json::Value* OrvPolicyRestore::resolve(const std::string& app, const std::string& state,
                                             const char* key) const {
    const Json::Value& apps = mRoot["applications"];
    std::string at = app;
    bool defined = false;  // a state defined, even empty, keeps the fallback away
    for (int hop = 0; hop < 16 && apps.isObject() && apps[at].isObject(); ++hop) {
        const Json::Value& action = apps[at]["action"];
        if (!action.isObject()) break;
        defined = defined || !action[state].isNull();
        if (action[state].isObject() && action[state].isMember(key)) return &action[state][key];
        if (!action["reference"].isString()) break;
        at = action["reference"].asString();
    }
    if (defined || app == "*" || !fallbackActive()) return nullptr;
    return resolve("*", state, key);
}

bool OrvPolicyRestore::fallbackActive() const {
    const Json::Value& apps = mRoot["applications"];
    if (!apps.isObject() || !apps["*"].isObject()) return false;
    const Json::Value& star = apps["*"];
    return (star["action"].isObject() && star["action"].size() != 0) ||
           (star["param"].isObject() && star["param"].size() != 0);
}

// Whether `app` (or what its "param" refers to, or the fallback) gives `state` a time-out.
bool OrvPolicyRestore::hasTimeout(const std::string& app, const std::string& state) const {
    const Json::Value& apps = mRoot["applications"];
    const std::string key = state + "_timeout";
    std::string at = app;
    for (int hop = 0; hop < 16 && apps.isObject() && apps[at].isObject(); ++hop) {
        const Json::Value& param = apps[at]["param"];
        if (!param.isObject()) break;
        if (param[key].isConvertibleTo(Json::stringValue) && !param[key].isNull())
            return atoi(param[key].asString().c_str()) >= 1;
        if (!param["reference"].isString()) break;
        at = param["reference"].asString();
    }
    return false;
}

void OrvPolicyRestore::run() {
    const Json::Value& apps = mRoot["applications"];
    if (!apps.isObject()) return;
    const Json::Value& def = mRoot["default"];
    const Json::Value* reset =
        def.isObject() && def["action"].isObject() && def["action"]["reset"].isObject()
            ? &def["action"]["reset"]["policy"]
            : nullptr;
    for (const auto& app : apps.getMemberNames()) {
        const Json::Value& action = apps[app].isObject() ? apps[app]["action"] : Json::nullValue;
        if (!action.isObject()) continue;
        // Only the application's own states: one that borrows them is judged at the lender.
        for (const auto& state : action.getMemberNames()) {
            if (!orv::state::isName(state) || state == "reset" || !action[state].isObject())
                continue;
            // Leaving run means leaving the application; every other state returns to run.
            std::set<std::string> restoring = targets(resolve(app, state, "on_exit"));
            std::string where = app + ".action." + state + ".on_exit";
            const std::string other =
                state == "run" ? "default.action.reset.policy" : app + ".action.run";
            std::set<std::string> more =
                state == "run" ? targets(reset) : targets(resolve(app, "run", "policy"));
            if (state != "run")
                for (const auto& t : targets(resolve(app, "run", "on_enter"))) more.insert(t);
            restoring.insert(more.begin(), more.end());
            for (const char* key : {"on_enter", "policy"}) {
                if (!action[state].isMember(key)) continue;
                for (const auto& t : targets(&action[state][key])) {
                    if (isRestored(t, restoring)) continue;
                    // An end that restores nothing is still an end; without one, the boost
                    // lasts until the application changes.
                    const std::string untimed =
                        OrvPolicyStates::isEventEnded(state) && !hasTimeout(app, state)
                            ? ", and no " + state + "_timeout ends the state"
                            : "";
                    mReport.warning(app + ".action." + state + "." + key,
                                    "writes " + t + " and nothing sets it back: neither " + where +
                                        " nor " + other + " writes it" + untimed);
                }
            }
        }
    }
}
