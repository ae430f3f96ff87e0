#include "tools/orvpolicy/OrvPolicyChecker.h"

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <sstream>

#include "policy/OrvGroupBounds.h"
#include "protocol/include/orv/protocol.h"
#include "tools/orvpolicy/OrvPolicyRestore.h"
#include "tools/orvpolicy/OrvPolicyStates.h"

namespace {

const float kParserVersion = 1.0f;

std::string quoted(const std::string& s) {
    return "\"" + s + "\"";
}

bool isGestureState(const std::string& s) {
    return s.compare(0, 8, "gesture_") == 0;
}

// States the framework reports many times a minute.
bool isFrequentState(const std::string& s) {
    namespace st = orv::state;
    return isGestureState(s) || s == st::kListViewScroll || s == st::kListViewFling ||
           s == st::kScale || s == st::kRotate;
}

// The edit distance of two short names.
size_t distance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            size_t up = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] != b[j - 1])});
            diagonal = up;
        }
    }
    return row[b.size()];
}

const std::vector<std::string> kStateNames(std::begin(orv::state::kAll), std::end(orv::state::kAll));

std::string fmt(float v) {
    std::ostringstream os;
    os << v;
    return os.str();
}

}  // namespace

std::vector<std::string> OrvPolicyChecker::knownParams() {
    std::vector<std::string> names = {"event_mask", "thermal_mask", "large_heap",
                                      "heap_utilization", "hardware_acceleration"};
    for (const auto& state : kStateNames)
        if (isGestureState(state) || OrvPolicyStates::isEventEnded(state))
            names.push_back(state + "_timeout");
    return names;
}

float OrvPolicyChecker::parseVersion(const std::string& text) {
    // The engine's own reading: one non-blank character, then a number (nan and hex included).
    float v = 0.0f;
    return sscanf(text.c_str(), " %*c%f", &v) == 1 ? v : 0.0f;
}

std::string OrvPolicyChecker::suggest(const std::string& word,
                                      const std::vector<std::string>& names) {
    std::string best;
    size_t bestDistance = word.size() / 3 + 2;  // further than this is no typo
    for (const auto& n : names) {
        size_t d = distance(word, n);
        if (d < bestDistance) {
            bestDistance = d;
            best = n;
        }
    }
    return best.empty() ? "" : " (did you mean " + best + "?)";
}

void OrvPolicyChecker::run() {
    if (!mRoot.isObject()) {
        mReport.error("", "the document must be a JSON object");
        return;
    }
    for (const auto& key : mRoot.getMemberNames())
        if (key != "parser" && key != "version" && key != "applications" && key != "default" &&
            key != "policy_group" && key != "on_stop")
            mReport.warning(key, "unknown top-level key, never read" +
                                     suggest(key, {"parser", "version", "applications", "default",
                                                   "policy_group", "on_stop"}));
    checkVersion("parser", true);
    checkVersion("version", false);
    checkSet("on_stop", mRoot["on_stop"]);

    const Json::Value& groups = mRoot["policy_group"];
    if (!groups.isNull() && !groups.isObject())
        mReport.error("policy_group", "must be an object of named action sets");
    else
        checkGroupCycles();
    for (const auto& over : OrvGroupBounds::check(mRoot)) {
        mReport.error(over.location, over.message + ": orvd refuses the document");
        if (over.message.find("nesting") != std::string::npos) mGroupWalkUnsafe = true;
    }

    // Only default.action.reset.policy is read; everything beside that path is reported.
    const Json::Value* node = &mRoot;
    std::string loc;
    static const char* const kDefaultPath[] = {"default", "action", "reset", "policy"};
    for (int i = 0; i < 3 && node; ++i) {
        loc += (i ? "." : "") + std::string(kDefaultPath[i]);
        node = &(*node)[kDefaultPath[i]];
        if (node->isNull()) {
            node = nullptr;
        } else if (!node->isObject()) {
            mReport.error(loc, "must be an object");
            node = nullptr;
        } else {
            for (const auto& key : node->getMemberNames())
                if (key != kDefaultPath[i + 1])
                    mReport.warning(loc + "." + key,
                                    "never read: only default.action.reset.policy is");
        }
    }
    if (node) checkSet("default.action.reset.policy", (*node)["policy"]);

    const Json::Value& apps = mRoot["applications"];
    if (!apps.isNull() && !apps.isObject()) {
        mReport.error("applications", "must be an object: application name to its policy");
    } else if (apps.isObject()) {
        for (const auto& name : apps.getMemberNames()) checkApplication(name, apps[name]);
        checkReferenceCycles("action");
        checkReferenceCycles("param");
        OrvPolicyRestore(mRoot, mReport).run();
    }

    if (groups.isObject()) {
        for (const auto& name : groups.getMemberNames()) {
            if (mCheckedGroups.count(name)) continue;
            if (!mGroupWalkUnsafe)
                mReport.warning("policy_group." + name, "no action set uses this group");
            mCheckedGroups.insert(name);
            checkSet("policy_group." + name, groups[name]);
        }
        // Without the descent, uses are known once every group has been checked.
        for (const auto& name : groups.getMemberNames())
            if (mGroupWalkUnsafe && mGroupUses.count(name) == 0)
                mReport.warning("policy_group." + name, "no action set uses this group");
    }
    // A mistake inside a group is one mistake wherever the group runs: name its definition.
    for (auto& f : mReport.findings()) {
        const std::string group = OrvPolicyReport::groupOf(f.location);
        if (group.empty()) continue;
        f.location = OrvPolicyReport::documentPath(f.location, mRoot);
        std::string uses;
        for (const auto& u : mGroupUses[group]) uses += (uses.empty() ? "" : ", ") + u;
        f.message += " (the group runs from " + uses + ")";
    }
}

void OrvPolicyChecker::checkVersion(const char* key, bool isParser) {
    const Json::Value& v = mRoot[key];
    if (v.isNull()) {
        mReport.error(key, isParser ? "missing: orvd reads it as v999999 and refuses the document"
                                    : "missing: orvd reads it as v-1 and refuses the document");
        return;
    }
    if (v.isArray() || v.isObject()) {
        mReport.error(key, "must be a text such as \"v1.0\"; orvd treats this as missing");
        return;
    }
    std::string text = v.asString();
    if (!v.isString())
        mReport.warning(
            key, "not a text: orvd reads it as " + quoted(text) + ", write \"v" + text + "\"");
    float number = parseVersion(text);
    size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos || text[first] != 'v')
        mReport.warning(key, quoted(text) + " reads as " + fmt(number) +
                                 ": the first character stands for the \"v\"");
    if (isParser && number > kParserVersion)
        mReport.error(key, quoted(text) +
                               " needs a newer engine; orvd reads up to v1.0 and "
                               "refuses the document");
    if (!isParser && !(number > 0.0f) && number == number)
        mReport.error(key, quoted(text) + " reads as " + fmt(number) +
                               "; only versions above 0 are ever loaded");
}

void OrvPolicyChecker::checkApplication(const std::string& name, const Json::Value& app) {
    if (!app.isObject()) {
        mReport.error(name, "an application must be an object with \"action\" and \"param\"");
        return;
    }
    for (const auto& key : app.getMemberNames())
        if (key != "action" && key != "param")
            mReport.warning(name + "." + key, "unknown key, never read");
    checkParams(name, app["param"]);

    const Json::Value& action = app["action"];
    if (action.isNull()) return;
    if (!action.isObject()) {
        mReport.error(name + ".action", "must be an object: state name to its action sets");
        return;
    }
    for (const auto& state : action.getMemberNames()) {
        std::string stateLoc = name + ".action." + state;
        if (state == "reference") {
            checkReference(name, "action", action[state]);
            continue;
        }
        if (!orv::state::isName(state)) {
            mReport.warning(stateLoc, "unknown state, never entered" + suggest(state, kStateNames));
            continue;
        }
        if (state == "reset" && !name.empty())
            mReport.warning(stateLoc,
                            "the reset state belongs to no application, so this is "
                            "never run; use \"default\"");
        const Json::Value& sets = action[state];
        if (!sets.isObject()) {
            mReport.error(stateLoc, "a state must be an object of action sets");
            continue;
        }
        for (const auto& key : sets.getMemberNames()) {
            if (key == "on_enter" || key == "on_exit" || key == "policy") {
                checkSet(stateLoc + "." + key, sets[key]);
                std::set<std::string> seen;
                if (isFrequentState(state) && usesIoctl(sets[key], seen))
                    mReport.warning(stateLoc + "." + key,
                                    "runs an ioctl in a state entered often: each execution "
                                    "opens the node again and orvd keeps that descriptor open "
                                    "for the rest of its life");
            } else
                mReport.warning(stateLoc + "." + key,
                                "unknown set key (on_enter, on_exit or policy); never run" +
                                    suggest(key, {"on_enter", "on_exit", "policy"}));
        }
    }
}

void OrvPolicyChecker::checkParams(const std::string& name, const Json::Value& params) {
    if (params.isNull()) return;
    std::string base = name + ".param";
    if (!params.isObject()) {
        mReport.error(base, "must be an object: parameter name to its text");
        return;
    }
    for (const auto& key : params.getMemberNames()) {
        std::string loc = base + "." + key;
        const Json::Value& v = params[key];
        if (key == "reference") {
            checkReference(name, "param", v);
            continue;
        }
        if (v.isNull()) {
            mReport.warning(loc, "null counts as absent; orvd answers as if it were not there");
            continue;
        }
        if (v.isArray() || v.isObject()) {
            mReport.error(loc,
                          "a parameter must be a text; orvd cannot answer with an array "
                          "or object");
            continue;
        }
        std::string text = v.asString();
        if (!v.isString()) mReport.warning(loc, "is not a text; it is answered as " + quoted(text));
        if (key == "event_mask" || key == "thermal_mask") {
            if (text.find_first_not_of("01") != std::string::npos)
                mReport.error(loc, quoted(text) +
                                       " holds characters other than 0 and 1; orvd "
                                       "answers the default (" +
                                       (key == "event_mask" ? "0" : "7") + ") instead");
        } else if (key.size() > 8 && key.compare(key.size() - 8, 8, "_timeout") == 0 &&
                   isGestureState(key.substr(0, key.size() - 8)) &&
                   orv::state::isName(key.substr(0, key.size() - 8))) {
            int ms = atoi(text.c_str());
            if (ms < 1)
                mReport.warning(loc, quoted(text) + " reads as " + std::to_string(ms) +
                                         "; orvd uses 100 ms instead");
            else if (ms > 5000)
                mReport.warning(loc, std::to_string(ms) +
                                         " ms is quite large; orvd warns "
                                         "each time the state is entered");
        } else if (OrvPolicyStates::isEndTimeout(key)) {
            int ms = atoi(text.c_str());
            if (ms < 1)
                mReport.warning(loc, quoted(text) + " reads as " + std::to_string(ms) +
                                         "; the state then never ends by time");
        } else if (key != "large_heap" && key != "heap_utilization" &&
                   key != "hardware_acceleration") {
            mReport.warning(
                loc, "unknown parameter; orvd never asks for it" + suggest(key, knownParams()));
        }
    }
}

void OrvPolicyChecker::checkReference(const std::string& app, const char* section,
                                      const Json::Value& ref) {
    std::string loc = app + "." + section + ".reference";
    if (!ref.isString()) {
        mReport.error(loc, "must be the name of an application");
        return;
    }
    if (!mRoot["applications"].isMember(ref.asString()))
        mReport.error(loc, "names " + quoted(ref.asString()) +
                               ", which is not an application of this document");
}

void OrvPolicyChecker::checkReferenceCycles(const char* section) {
    const Json::Value& apps = mRoot["applications"];
    std::map<std::string, std::string> next;
    for (const auto& name : apps.getMemberNames()) {
        const Json::Value& app = apps[name];
        if (!app.isObject() || !app[section].isObject()) continue;
        const Json::Value& ref = app[section]["reference"];
        if (ref.isString() && apps.isMember(ref.asString())) next[name] = ref.asString();
    }
    std::set<std::string> reported;
    for (const auto& start : next) {
        std::vector<std::string> path;
        std::set<std::string> seen;
        std::string cur = start.first;
        while (next.count(cur) && !seen.count(cur)) {
            seen.insert(cur);
            path.push_back(cur);
            cur = next[cur];
        }
        if (!seen.count(cur) || reported.count(cur)) continue;
        // Only the loop itself, from where it closes, and each loop once.
        std::string chain;
        bool in = false;
        for (const auto& p : path) {
            if (p == cur) in = true;
            if (in) {
                chain += p + " -> ";
                reported.insert(p);
            }
        }
        chain += cur;
        std::string what = std::string(section) == "action"
                               ? "any action set that none of them defines makes orvd loop for ever"
                               : "any parameter that none of them defines makes orvd recurse "
                                 "until its stack overflows";
        mReport.error(cur + "." + section + ".reference",
                      "\"reference\" cycle " + chain + ": " + what);
    }
}

void OrvPolicyChecker::checkGroupCycles() {
    const Json::Value& groups = mRoot["policy_group"];
    if (!groups.isObject()) return;
    std::map<std::string, std::vector<std::string>> calls;
    for (const auto& name : groups.getMemberNames()) {
        const Json::Value& set = groups[name];
        if (!set.isArray()) continue;
        for (const auto& m : set)
            if (m.isObject() && m["method"] == "group" && m["path"].isString() &&
                groups.isMember(m["path"].asString()))
                calls[name].push_back(m["path"].asString());
    }
    // Depth-first search on an explicit stack; a group met again on the current path closes a
    // loop.
    std::map<std::string, int> mark;  // 0 new, 1 on path, 2 done
    for (const auto& name : groups.getMemberNames()) {
        if (mark[name] != 0) continue;
        std::vector<std::string> path{name};
        std::vector<size_t> next{0};
        mark[name] = 1;
        while (!path.empty()) {
            const std::vector<std::string>& callees = calls[path.back()];
            if (next.back() == callees.size()) {
                mark[path.back()] = 2;
                path.pop_back();
                next.pop_back();
                continue;
            }
            const std::string callee = callees[next.back()++];
            if (mark[callee] == 1) {
                std::string chain;
                bool in = false;
                for (const auto& p : path) {
                    if (p == callee) in = true;
                    if (in) chain += p + " -> ";
                }
                mReport.error(
                    "policy_group." + callee,
                    "group cycle " + chain + callee + ": orvd recurses until its stack overflows");
                mGroupWalkUnsafe = true;
            } else if (mark[callee] == 0) {
                mark[callee] = 1;
                path.push_back(callee);
                next.push_back(0);
            }
        }
    }
}

bool OrvPolicyChecker::usesIoctl(const Json::Value& set, std::set<std::string>& seenGroups) {
    if (!set.isArray()) return false;
    const bool descend = !mGroupWalkUnsafe;
    const Json::Value& groups = mRoot["policy_group"];
    for (const auto& m : set) {
        if (!m.isObject() || !m["method"].isString()) continue;
        const std::string method = m["method"].asString();
        if (method == "ioctl" || method == "orv_ioctl") return true;
        if (method != "group" || !m["path"].isString() || !groups.isObject()) continue;
        const std::string name = m["path"].asString();
        if (descend && seenGroups.insert(name).second && groups.isMember(name) &&
            usesIoctl(groups[name], seenGroups))
            return true;
    }
    return false;
}

void OrvPolicyChecker::checkSet(const std::string& loc, const Json::Value& set) {
    if (set.isNull()) return;
    if (!set.isArray()) {
        mReport.error(loc, "an action set must be an array of method objects");
        return;
    }
    for (Json::ArrayIndex i = 0; i < set.size(); ++i)
        checkMethod(loc + "[" + std::to_string(i) + "]", set[i]);
}

void OrvPolicyChecker::checkMethod(const std::string& loc, const Json::Value& m) {
    // A null element reads as one without "method"; orvd skips any other non-object as well.
    if (!m.isNull() && !m.isObject()) {
        mReport.error(loc, "a method must be an object");
        return;
    }
    const Json::Value& method = m["method"];
    if (method.isNull()) {
        mReport.error(loc, "no \"method\": orvd reports it and skips it");
        return;
    }
    if (!method.isString()) {
        mReport.error(loc, "\"method\" must be a text");
        return;
    }
    std::string name = method.asString();
    if (name != "group") {
        mMethods.check(loc, name, m);
        return;
    }
    for (const auto& key : m.getMemberNames())
        if (key != "method" && key != "path")
            mReport.warning(loc, "key " + quoted(key) + " is never read by \"group\"");
    const Json::Value& path = m["path"];
    if (!path.isString()) {
        mReport.error(loc, "\"path\" of a group must be the group's name");
        return;
    }
    std::string group = path.asString();
    mGroupUses[group].push_back(loc);
    const Json::Value& groups = mRoot["policy_group"];
    if (!groups.isObject() || !groups.isMember(group) || groups[group].isNull()) {
        mReport.error(loc, "policy_group " + quoted(group) +
                               " does not exist; orvd does "
                               "nothing here");
        return;
    }
    // Each group's own findings once, at the first place that uses it.
    if (!mGroupWalkUnsafe && mCheckedGroups.insert(group).second)
        checkSet(loc + group, groups[group]);
}
