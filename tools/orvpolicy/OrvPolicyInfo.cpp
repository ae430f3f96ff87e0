#include "tools/orvpolicy/OrvPolicyInfo.h"

#include <stdio.h>

#include "tools/orvpolicy/OrvPolicyChecker.h"

OrvPolicyInfo::OrvPolicyInfo(const Json::Value& root) : mRoot(root) {
    if (!root.isObject()) return;
    const Json::Value& apps = root["applications"];
    if (apps.isObject()) {
        for (const auto& name : apps.getMemberNames()) {
            ++applications;
            const Json::Value& app = apps[name];
            if (!app.isObject() || !app["action"].isObject()) continue;
            const Json::Value& action = app["action"];
            if (action.isMember("reference")) ++referencing;
            for (const auto& state : action.getMemberNames()) {
                if (!action[state].isObject()) continue;
                for (const auto& key : action[state].getMemberNames()) countSet(action[state][key]);
            }
        }
    }
    const Json::Value& groupsValue = root["policy_group"];
    if (groupsValue.isObject()) {
        for (const auto& name : groupsValue.getMemberNames()) {
            ++groups;
            countSet(groupsValue[name]);
        }
    }
    const Json::Value& def = root["default"];
    if (def.isObject() && def["action"].isObject() && def["action"]["reset"].isObject())
        countSet(def["action"]["reset"]["policy"]);
}

void OrvPolicyInfo::countSet(const Json::Value& set) {
    if (!set.isArray()) return;
    for (const auto& m : set)
        if (m.isObject() && m["method"].isString()) ++methods[m["method"].asString()];
}

int OrvPolicyInfo::methodCount() const {
    int n = 0;
    for (const auto& m : methods) n += m.second;
    return n;
}

std::string OrvPolicyInfo::format(const std::string& file, bool isProtected) const {
    auto versionLine = [&](const char* key) {
        const Json::Value& v = mRoot.isObject() ? mRoot[key] : Json::Value::nullSingleton();
        if (!v.isString()) return std::string("(none)");
        char num[32];
        snprintf(num, sizeof(num), "%.2f", OrvPolicyChecker::parseVersion(v.asString()));
        return v.asString() + " (reads as " + num + ")";
    };
    std::string out = file + "\n";
    out += std::string("  protected:     ") + (isProtected ? "yes" : "no") + "\n";
    out += "  parser:        " + versionLine("parser") + "; orvd reads up to v1.0\n";
    out += "  version:       " + versionLine("version") + "\n";
    out += "  applications:  " + std::to_string(applications);
    if (referencing) out += " (" + std::to_string(referencing) + " through \"reference\")";
    out += "\n  policy groups: " + std::to_string(groups) + "\n";
    out += "  methods:       " + std::to_string(methodCount());
    std::string detail;
    for (const auto& m : methods)
        detail += (detail.empty() ? "" : ", ") + m.first + " " + std::to_string(m.second);
    if (!detail.empty()) out += " (" + detail + ")";
    out += "\n";
    return out;
}
