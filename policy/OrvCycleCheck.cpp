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

// By section index (kParam, kAction).
const char* const kSectionNames[] = {"param", "action"};

}  // namespace

std::string OrvCycleCheck::find(const Json::Value& root) {
    const Json::Value* apps = memberOf(root, "applications");
    if (apps != nullptr && apps->isObject()) {
        const Referrers referrers = findReferrers(*apps);
        for (int section : {kParam, kAction}) {
            std::string cycle = findReferenceCycle(*apps, referrers, section);
            if (!cycle.empty()) return cycle;
        }
    }
    const Json::Value* groups = memberOf(root, "policy_group");
    return groups != nullptr ? findGroupCycle(*groups) : std::string();
}

// One pass over the applications for both sections: with thousands of applications the walk
// over the tree, not the search, is what costs.
OrvCycleCheck::Referrers OrvCycleCheck::findReferrers(const Json::Value& apps) {
    Referrers out;
    for (auto it = apps.begin(); it != apps.end(); ++it) {
        if (!it->isObject()) continue;
        Referrer entry{&*it, nullptr, nullptr, {nullptr, nullptr}};
        entry.name = it.memberName(&entry.nameEnd);
        for (int section : {kParam, kAction}) {
            const Json::Value* part = memberOf(*it, kSectionNames[section]);
            const Json::Value* ref = part ? memberOf(*part, "reference") : nullptr;
            if (ref != nullptr && ref->isString()) entry.ref[section] = ref->asCString();
        }
        if (entry.ref[kParam] != nullptr || entry.ref[kAction] != nullptr) {
            out.index.emplace(entry.app, out.list.size());
            out.list.push_back(entry);
        }
    }
    return out;
}

// Each application names at most one other, so every walk is a chain; a chain that meets an
// application of its own walk is a loop. Applications already cleared end a walk early. Only
// applications that name another take part: the rest end any walk anyway.
std::string OrvCycleCheck::findReferenceCycle(const Json::Value& apps, const Referrers& referrers,
                                              int section) {
    auto reference = [&](const Json::Value* app) -> const char* {
        auto at = referrers.index.find(app);
        return at == referrers.index.end() ? nullptr : referrers.list[at->second].ref[section];
    };
    std::unordered_map<const Json::Value*, int> walkOf;  // application -> walk that visited it
    std::vector<std::pair<const Json::Value*, std::string>> path;
    int walk = 0;
    for (const Referrer& start : referrers.list) {
        if (start.ref[section] == nullptr || walkOf.count(start.app)) continue;
        ++walk;
        path.clear();
        const Json::Value* cur = start.app;
        std::string name = start.name ? std::string(start.name, start.nameEnd) : std::string();
        while (cur != nullptr) {
            auto seen = walkOf.find(cur);
            if (seen != walkOf.end()) {
                if (seen->second != walk) break;
                size_t from = 0;
                while (path[from].first != cur) ++from;
                std::vector<std::string> names;
                for (size_t i = from; i < path.size(); ++i) names.push_back(path[i].second);
                return std::string(kSectionNames[section]) +
                       " reference cycle: " + chain(names, 0, name);
            }
            const char* target = reference(cur);
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
