#include "tools/orvpolicy/OrvPolicyInfo.h"

#include <stdio.h>

#include "protocol/include/orv/protocol.h"
#include "tools/orvpolicy/OrvPolicyChecker.h"
#include "tools/orvpolicy/OrvPolicyStates.h"

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
    countSet(root["on_stop"]);
}

// The keys that bound what the states do, each line only when the policy uses it.
std::string OrvPolicyInfo::formatBounds() const {
    if (!mRoot.isObject()) return "";
    std::string out;
    const Json::Value& apps = mRoot["applications"];
    const Json::Value& star = apps.isObject() ? apps["*"] : Json::Value::nullSingleton();
    if (star.isObject()) {
        std::string states;
        if (star["action"].isObject())
            for (const auto& st : star["action"].getMemberNames())
                states += (states.empty() ? "" : ", ") + st;
        const bool covers = (star["action"].isObject() && star["action"].size() != 0) ||
                            (star["param"].isObject() && star["param"].size() != 0);
        out += "  fallback:      \"*\" " +
               (covers ? "for unlisted applications" +
                             (states.empty() ? std::string() : " (" + states + ")")
                       : std::string("defines nothing, so it covers nothing")) +
               "\n";
    }
    std::string timeouts;
    for (const auto& name : apps.isObject() ? apps.getMemberNames() : std::vector<std::string>()) {
        const Json::Value& param = apps[name].isObject() ? apps[name]["param"] : Json::nullValue;
        if (!param.isObject()) continue;
        for (const auto& key : param.getMemberNames())
            if (OrvPolicyStates::isEndTimeout(key) && param[key].isString())
                timeouts += std::string(timeouts.empty() ? "" : ", ") + key + " " +
                            param[key].asString() + " (" + name + ")";
    }
    if (!timeouts.empty()) out += "  state time-outs: " + timeouts + "\n";
    const Json::Value& stop = mRoot["on_stop"];
    if (!stop.isNull())
        out += "  on_stop:       " + std::to_string(stop.isArray() ? stop.size() : 0) +
               " methods run as orvd stops\n";
    return out;
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
    return out + formatBounds();
}

std::string OrvPolicyInfo::formatApps() const {
    static const struct {
        const char* name;
        const char* head;
    } kStates[] = {{orv::state::kLaunch, "lnch"},
                   {orv::state::kStart, "strt"},
                   {orv::state::kRun, "run"},
                   {orv::state::kScale, "scal"},
                   {orv::state::kListViewScroll, "lscr"},
                   {orv::state::kListViewFling, "lfli"},
                   {orv::state::kRotate, "rota"},
                   {orv::state::kGestureDown, "down"},
                   {orv::state::kGesturePress, "pres"},
                   {orv::state::kGestureTap, "tap"},
                   {orv::state::kGestureScroll, "scro"},
                   {orv::state::kGestureFling, "flin"},
                   {orv::state::kGestureLongPress, "long"}};
    static const struct {
        const char* key;
        char mark;
    } kSets[] = {{"on_enter", 'e'}, {"policy", 'p'}, {"on_exit", 'x'}};
    if (!mRoot.isObject()) return "";
    const Json::Value& apps = mRoot["applications"];
    std::string out =
        "  sets per state (e on_enter, p policy, x on_exit, * through \"reference\"; lscr and\n"
        "  lfli are the list view's scroll and fling, the last six the gestures):\n";
    out += "    " + std::string(28, ' ');
    for (const auto& st : kStates) {
        char head[8];
        snprintf(head, sizeof(head), " %-4s", st.head);
        out += head;
    }
    out += "\n";
    for (const auto& name : apps.isObject() ? apps.getMemberNames() : std::vector<std::string>()) {
        char row[40];
        snprintf(row, sizeof(row), "    %-28.28s", name.c_str());
        out += row;
        for (const auto& state : kStates) {
            const char* st = state.name;
            // Follow "reference" as the engine does, a few steps at most.
            std::string cell;
            std::string at = name;
            for (int hop = 0; hop < 8 && cell.empty(); ++hop) {
                const Json::Value& action =
                    apps[at].isObject() ? apps[at]["action"] : Json::Value::nullSingleton();
                if (!action.isObject()) break;
                if (action[st].isObject())
                    for (const auto& s : kSets)
                        if (action[st].isMember(s.key)) cell += s.mark;
                if (!cell.empty() && hop > 0) cell += '*';
                if (!action["reference"].isString()) break;
                at = action["reference"].asString();
            }
            char col[8];
            snprintf(col, sizeof(col), " %-4s", cell.empty() ? "-" : cell.c_str());
            out += col;
        }
        out += "\n";
    }
    const Json::Value& groups = mRoot["policy_group"];
    if (!groups.isObject()) return out;
    out += "  groups:\n";
    for (const auto& g : groups.getMemberNames()) {
        std::string calls;
        if (groups[g].isArray())
            for (const auto& m : groups[g])
                if (m.isObject() && m["method"] == "group" && m["path"].isString())
                    calls += (calls.empty() ? " -> " : ", ") + m["path"].asString();
        out += "    " + g + calls + "\n";
    }
    return out;
}
