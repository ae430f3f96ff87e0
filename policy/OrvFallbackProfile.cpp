#include "policy/OrvFallbackProfile.h"

#include <string.h>

const char* const OrvFallbackProfile::kName = "*";

// Loaded documents hold no reference loop; this only bounds an absurd chain.
static const int kMaxLinks = 64;

// A member of an object without inserting it; null for anything else.
static const Json::Value* child(const Json::Value* node, const char* key) {
    return node != nullptr && node->isObject() ? node->find(key, key + strlen(key)) : nullptr;
}

static bool hasMembers(const Json::Value& entry, const char* section) {
    const Json::Value* v = child(&entry, section);
    return v != nullptr && v->isObject() && v->size() != 0;
}

OrvFallbackProfile::OrvFallbackProfile(const Json::Value* root) : mName(kName) {
    const Json::Value* apps = child(root, "applications");
    if (apps == nullptr || !apps->isObject()) return;
    for (auto it = apps->begin(); it != apps->end(); ++it) {
        const std::string name = it.name();
        mListed.insert(name);
        const Json::Value& entry = *it;
        if (!entry.isObject()) continue;
        if (name == kName) mActive = hasMembers(entry, "action") || hasMembers(entry, "param");
        const Json::Value* action = child(&entry, "action");
        if (action == nullptr || !action->isObject()) continue;
        for (auto s = action->begin(); s != action->end(); ++s) {
            if (s.name() == "reference") {
                if (s->isString()) mActionReference[name] = s->asString();
            } else if (!s->isNull()) {
                mDefined.insert(name + "\n" + s.name());
            }
        }
    }
}

bool OrvFallbackProfile::definesState(const std::string& app, const char* state) const {
    std::string name = app;
    for (int link = 0; link < kMaxLinks; ++link) {
        if (mDefined.count(name + "\n" + state) != 0) return true;
        auto next = mActionReference.find(name);
        if (next == mActionReference.end()) return false;
        name = next->second;
    }
    return false;
}

std::string OrvFallbackProfile::entryFor(const char* app) const {
    std::string name = app ? app : "";
    if (mActive && !name.empty() && !isListed(name)) return kName;
    return name;
}
