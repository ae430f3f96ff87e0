#include "policy/OrvGroupBounds.h"

#include <string.h>

#include <algorithm>
#include <unordered_map>

namespace {

// Sizes saturate here: exponential growth must not overflow, only be reported.
constexpr uint64_t kHuge = uint64_t(1) << 62;

const Json::Value* memberOf(const Json::Value& object, const char* key) {
    return object.isObject() ? object.find(key, key + strlen(key)) : nullptr;
}

uint64_t add(uint64_t a, uint64_t b) {
    return a >= kHuge - b ? kHuge : a + b;
}

std::string sizeText(uint64_t n) {
    return n >= kHuge ? "more than " + std::to_string(kHuge) : std::to_string(n);
}

// The group a method object calls, or null.
const char* calledGroup(const Json::Value& m, const Json::Value& groups) {
    const Json::Value* method = memberOf(m, "method");
    const Json::Value* path = memberOf(m, "path");
    if (method == nullptr || !method->isString() || strcmp(method->asCString(), "group") != 0 ||
        path == nullptr || !path->isString() || memberOf(groups, path->asCString()) == nullptr)
        return nullptr;
    return path->asCString();
}

}  // namespace

struct OrvGroupBounds::Group {
    std::string name;
    const Json::Value* set;
    std::vector<size_t> callees;
    uint64_t size = 0;          // method objects run, every group expanded
    int depth = 0;              // levels of groups, this one included
    size_t deepest = SIZE_MAX;  // the callee that gives the depth
    int state = 0;              // 0 new, 1 on the walk's path, 2 done
    bool calledOverLimit = false;
};

std::vector<OrvGroupBounds::Group> OrvGroupBounds::expandGroups(const Json::Value& groups) {
    std::vector<Group> nodes;
    std::unordered_map<std::string, size_t> index;
    for (auto it = groups.begin(); it != groups.end(); ++it) {
        index.emplace(it.name(), nodes.size());
        nodes.push_back(Group{it.name(), &*it, {}});
    }
    for (Group& g : nodes) {
        if (!g.set->isArray()) continue;
        for (const Json::Value& m : *g.set)
            if (const char* callee = calledGroup(m, groups)) g.callees.push_back(index[callee]);
    }
    // Post-order on an explicit stack; a callee still on the path closes a loop and is skipped.
    for (size_t start = 0; start < nodes.size(); ++start) {
        if (nodes[start].state != 0) continue;
        std::vector<std::pair<size_t, size_t>> stack{{start, 0}};
        nodes[start].state = 1;
        while (!stack.empty()) {
            auto& [at, next] = stack.back();
            Group& g = nodes[at];
            if (next < g.callees.size()) {
                size_t callee = g.callees[next++];
                if (nodes[callee].state == 0) {
                    nodes[callee].state = 1;
                    stack.push_back({callee, 0});
                }
                continue;
            }
            g.size = g.set->isArray() ? g.set->size() : 0;
            for (size_t callee : g.callees) {
                const Group& c = nodes[callee];
                if (c.state != 2) continue;
                g.size = add(g.size, c.size);
                if (c.depth > (g.deepest == SIZE_MAX ? 0 : nodes[g.deepest].depth))
                    g.deepest = callee;
            }
            g.depth = 1 + (g.deepest == SIZE_MAX ? 0 : nodes[g.deepest].depth);
            g.state = 2;
            stack.pop_back();
        }
    }
    return nodes;
}

std::vector<OrvGroupBounds::Finding> OrvGroupBounds::check(const Json::Value& root) {
    std::vector<Finding> out;
    static const Json::Value kNone;
    const Json::Value* groupsNode = memberOf(root, "policy_group");
    const Json::Value& groups = groupsNode != nullptr ? *groupsNode : kNone;
    std::vector<Group> nodes = expandGroups(groups);

    const Group* deepest = nullptr;
    for (const Group& g : nodes)
        if (deepest == nullptr || g.depth > deepest->depth) deepest = &g;
    if (deepest != nullptr && deepest->depth > kMaxNesting) {
        // Named by its ends: the chain itself is hundreds of names long.
        std::vector<std::string> chain;
        for (const Group* g = deepest; g != nullptr;
             g = g->deepest == SIZE_MAX ? nullptr : &nodes[g->deepest])
            chain.push_back(g->name);
        std::string text;
        for (size_t i = 0; i < chain.size(); ++i) {
            if (i == 3 && chain.size() > 6) {
                text += " -> ...";
                i = chain.size() - 3;
            }
            text += (i ? " -> " : "") + chain[i];
        }
        out.push_back({"policy_group." + deepest->name,
                       "group nesting too deep: " + text + " (" + std::to_string(deepest->depth) +
                           " levels, limit " + std::to_string(kMaxNesting) + ")"});
    }

    auto overLimit = [&](const std::string& location, uint64_t size) {
        if (size <= kMaxMethods) return false;
        out.push_back({location, "action set " + location + " expands to " + sizeText(size) +
                                     " methods (limit " + std::to_string(kMaxMethods) + ")"});
        return true;
    };
    // A set's size: its own elements and, for each group it calls, that group's expansion.
    std::unordered_map<std::string, size_t> index;
    for (size_t i = 0; i < nodes.size(); ++i) index.emplace(nodes[i].name, i);
    auto setSize = [&](const Json::Value& set) {
        uint64_t size = set.size();
        for (const Json::Value& m : set)
            if (const char* callee = calledGroup(m, groups))
                size = add(size, nodes[index[callee]].size);
        return size;
    };
    for (const Group& g : nodes) {
        if (g.size <= kMaxMethods) continue;
        for (size_t callee : g.callees) nodes[callee].calledOverLimit = true;
    }
    for (const Group& g : nodes)
        if (!g.calledOverLimit) overLimit("policy_group." + g.name, g.size);

    if (const Json::Value* reset = memberOf(root, "default")) {
        const Json::Value* set = reset;
        for (const char* key : {"action", "reset", "policy"})
            set = set ? memberOf(*set, key) : nullptr;
        if (set != nullptr && set->isArray())
            overLimit("default.action.reset.policy", setSize(*set));
    }
    const Json::Value* apps = memberOf(root, "applications");
    if (apps == nullptr || !apps->isObject()) return out;
    for (auto app = apps->begin(); app != apps->end(); ++app) {
        const Json::Value* actions = memberOf(*app, "action");
        if (actions == nullptr || !actions->isObject()) continue;
        for (auto state = actions->begin(); state != actions->end(); ++state) {
            if (!state->isObject()) continue;
            for (auto set = state->begin(); set != state->end(); ++set) {
                if (!set->isArray()) continue;
                overLimit(app.name() + ".action." + state.name() + "." + set.name(), setSize(*set));
            }
        }
    }
    return out;
}
