#include "policy/OrvCycleCheck.h"

#include <string.h>

#include <map>
#include <unordered_map>
#include <utility>
#include <vector>

namespace {

// The members of `object` by name; nothing for anything else. Never inserts.
const Json::Value* memberOf(const Json::Value& object, const char* key) {
    return object.isObject() ? object.find(key, key + strlen(key)) : nullptr;
}

std::string chain(const std::vector<std::string>& path, size_t from, const std::string& last) {
    std::string out;
    for (size_t i = from; i < path.size(); ++i) out += path[i] + " -> ";
    return out + last;
}

}  // namespace

std::string OrvCycleCheck::find(const Json::Value& root) {
    const Json::Value* apps = memberOf(root, "applications");
    if (apps != nullptr && apps->isObject()) {
        for (const char* section : {"param", "action"}) {
            std::string cycle = findReferenceCycle(*apps, section);
            if (!cycle.empty()) return cycle;
        }
    }
    const Json::Value* groups = memberOf(root, "policy_group");
    return groups != nullptr ? findGroupCycle(*groups) : std::string();
}

// Each application names at most one other, so every walk is a chain; a chain that meets an
// application of its own walk is a loop. Applications already cleared end a walk early. Only
// applications that name another are remembered: the rest end any walk anyway, and a policy
// with thousands of applications and few references then costs no allocation per application.
std::string OrvCycleCheck::findReferenceCycle(const Json::Value& apps, const char* section) {
    auto reference = [&](const Json::Value& app) -> const char* {
        const Json::Value* part = memberOf(app, section);
        const Json::Value* ref = part ? memberOf(*part, "reference") : nullptr;
        return ref != nullptr && ref->isString() ? ref->asCString() : nullptr;
    };
    std::unordered_map<const Json::Value*, int> walkOf;  // application -> walk that visited it
    std::vector<std::pair<const Json::Value*, std::string>> path;
    int walk = 0;
    for (auto it = apps.begin(); it != apps.end(); ++it) {
        const char* target = reference(*it);
        if (target == nullptr || walkOf.count(&*it)) continue;
        ++walk;
        path.clear();
        const Json::Value* cur = &*it;
        std::string name = it.name();
        while (cur != nullptr) {
            auto seen = walkOf.find(cur);
            if (seen != walkOf.end()) {
                if (seen->second != walk) break;
                size_t from = 0;
                while (path[from].first != cur) ++from;
                std::vector<std::string> names;
                for (size_t i = from; i < path.size(); ++i) names.push_back(path[i].second);
                return std::string(section) + " reference cycle: " + chain(names, 0, name);
            }
            target = reference(*cur);
            if (target == nullptr) break;
            walkOf[cur] = walk;
            path.emplace_back(cur, name);
            name = target;
            cur = memberOf(apps, target);
        }
    }
    return std::string();
}

// Depth-first over the "group" methods of each group, on an explicit stack: a long acyclic
// chain of groups must not overflow this thread's stack either.
std::string OrvCycleCheck::findGroupCycle(const Json::Value& groups) {
    if (!groups.isObject()) return std::string();
    auto callees = [&](const std::string& name) {
        std::vector<std::string> out;
        const Json::Value* set = memberOf(groups, name.c_str());
        if (set == nullptr || !set->isArray()) return out;
        for (const Json::Value& m : *set) {
            const Json::Value* method = memberOf(m, "method");
            const Json::Value* path = memberOf(m, "path");
            if (method && method->isString() && method->asString() == "group" && path &&
                path->isString() && memberOf(groups, path->asCString()) != nullptr)
                out.push_back(path->asString());
        }
        return out;
    };
    enum { kOnPath = 1, kDone = 2 };
    std::map<std::string, int> mark;
    for (const std::string& start : groups.getMemberNames()) {
        if (mark[start] != 0) continue;
        std::vector<std::string> path{start};
        std::vector<std::pair<std::vector<std::string>, size_t>> stack{{callees(start), 0}};
        mark[start] = kOnPath;
        while (!stack.empty()) {
            auto& [todo, next] = stack.back();
            if (next == todo.size()) {
                mark[path.back()] = kDone;
                path.pop_back();
                stack.pop_back();
                continue;
            }
            std::string callee = todo[next++];
            if (mark[callee] == kOnPath) {
                size_t from = 0;
                while (path[from] != callee) ++from;
                return "group cycle: " + chain(path, from, callee);
            }
            if (mark[callee] == kDone) continue;
            mark[callee] = kOnPath;
            path.push_back(callee);
            stack.push_back({callees(callee), 0});
        }
    }
    return std::string();
}
