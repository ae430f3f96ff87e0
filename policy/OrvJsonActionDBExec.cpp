#define LOG_TAG "OrvActionManager"
#define ATRACE_TAG ATRACE_TAG_POWER
#include <cutils/trace.h>
#include <string.h>

#include "core/OrvLockGuard.h"
#include "core/OrvLog.h"
#include "policy/OrvJsonActionDB.h"
#include "policy/OrvOrEmpty.h"
#include "protocol/include/orv/protocol.h"

int OrvJsonActionDB::runKeyedAction(OrvAction* action, const char* app, const char* state,
                                    const char* key, ActionDir dir, const char* noDocError) {
    if (mRoot == nullptr) {
        ALOGE("%s", noDocError);
        return -1;
    }
    app = orEmpty(app);
    state = orEmpty(state);
    key = orEmpty(key);
    Json::Value* reference = nullptr;
    Json::Value* set = findActionSet(app, state, key, &reference);
    // Named only when it runs: most states have no set for most keys.
    // Built in a string kept for it: a name this long would otherwise cost an allocation.
    std::string& last = mLastScratch;
    last.clear();
    if (set != nullptr) {
        // Sized once and copied in, rather than grown by five appends.
        const size_t appLength = strlen(app), stateLength = strlen(state), keyLength = strlen(key);
        static const char kAction[] = ".action.";
        const size_t actionLength = sizeof(kAction) - 1;
        last.resize(appLength + actionLength + stateLength + 1 + keyLength + 1);
        char* out = &last[0];
        memcpy(out, app, appLength);
        memcpy(out += appLength, kAction, actionLength);
        memcpy(out += actionLength, state, stateLength);
        *(out += stateLength) = '.';
        memcpy(++out, key, keyLength);
        out[keyLength] = '\n';
    }
    return runTrackedSet(action, key, set, reference, dir, last);
}

// Links of a reference chain that isSettledSet follows before it gives up; the load refuses
// loops, so only an absurd chain is this long.
static const int kMaxSettledLinks = 64;

Json::Value* OrvJsonActionDB::findActionSet(const char* app, const char* state, const char* key,
                                            Json::Value** reference) {
    if (!mFallback.active()) return findOwnActionSet(app, state, key, reference);
    const std::string entry = mFallback.entryFor(app);
    if (entry != OrvFallbackProfile::kName) {
        Json::Value* set = findOwnActionSet(app, state, key, reference);
        // A listed application that has the state, even empty, keeps to it.
        if (set != nullptr || mFallback.definesState(entry, state)) return set;
    }
    Json::Value* via = nullptr;
    Json::Value* set = findOwnActionSet(OrvFallbackProfile::kName, state, key, &via);
    *reference = set == nullptr ? nullptr : via != nullptr ? via : mFallback.referenceName();
    return set;
}

// The keys of the three sets every move runs. Passed by these names, they are known by address.
static const char kOnExit[] = "on_exit";
static const char kOnEnter[] = "on_enter";
static const char kPolicy[] = "policy";

static int slotOfKey(const char* key) {
    if (key == kOnEnter) return 1;
    if (key == kOnExit) return 0;
    if (key == kPolicy) return 2;
    // The first letter rules out event names without a call.
    if (key[0] == 'o') {
        if (strcmp(key, "on_enter") == 0) return 1;
        if (strcmp(key, "on_exit") == 0) return 0;
    } else if (key[0] == 'p' && strcmp(key, "policy") == 0) {
        return 2;
    }
    return -1;
}

void OrvJsonActionDB::clearSetCaches() {
    mSetCache.clear();
    mStateSets.clear();
    for (RecentSets& recent : mRecentSets) recent.sets = nullptr;
}

OrvJsonActionDB::StateSets* OrvJsonActionDB::findStateSets(const char* app, const char* state) {
    for (const RecentSets& recent : mRecentSets) {
        if (recent.sets != nullptr && strcmp(recent.state.c_str(), state) == 0 &&
            strcmp(recent.app.c_str(), app) == 0)
            return recent.sets;
    }
    StateSets* sets = mStateSets.find({app, state});
    if (sets != nullptr) {
        RecentSets& older = mRecentSets[mOlderRecent];
        older.sets = sets;
        older.app = app;
        older.state = state;
        mOlderRecent ^= 1;
    }
    return sets;
}

Json::Value* OrvJsonActionDB::findOwnActionSet(const char* app, const char* state, const char* key,
                                               Json::Value** reference) {
    // A walk through a state named "reference" turns an application's null "reference" into an
    // object, which changes what earlier walks found.
    if (state[0] == 'r' && strcmp(state, "reference") == 0) {
        clearSetCaches();
        return getActionSet(app, state, key, reference);
    }
    const int slot = slotOfKey(key);
    if (slot >= 0) {
        if (StateSets* sets = findStateSets(app, state)) {
            if (sets->known[slot]) {
                *reference = sets->answers[slot].reference;
                return sets->answers[slot].set;
            }
        }
    } else if (const SetAnswer* hit = mSetCache.find({app, state, key})) {
        *reference = hit->reference;
        return hit->set;
    }
    *reference = nullptr;
    Json::Value* set = getActionSet(app, state, key, reference);
    if (!isSettledSet(app, state, key, set, *reference)) return set;
    if (slot < 0) {
        mSetCache.store({app, state, key}, {set, *reference});
    } else {
        StateSets& sets = mStateSets.entry({app, state});
        sets.answers[slot] = {set, *reference};
        sets.known[slot] = true;
    }
    return set;
}

bool OrvJsonActionDB::isSettledSet(const char* app, const char* state, const char* key,
                                   const Json::Value* set, const Json::Value* reference) {
    auto child = [](const Json::Value* node, const char* name) -> const Json::Value* {
        return node != nullptr && node->isObject() ? node->find(name, name + strlen(name)) : nullptr;
    };
    const Json::Value* found = nullptr;
    const Json::Value* followed = nullptr;
    bool settled = false;
    std::string name = app;
    {
        OrvLockGuard guard(mDocLock);
        for (int link = 0; link < kMaxSettledLinks; ++link) {
            const Json::Value* apps = child(mRoot, "applications");
            const Json::Value* actions = child(child(apps, name.c_str()), "action");
            const Json::Value* stateNode = child(actions, state);
            const Json::Value* candidate = child(stateNode, key);
            if (candidate == nullptr) break;
            if (!candidate->isNull()) {
                found = candidate;
                settled = true;
                break;
            }
            const Json::Value* next = child(actions, "reference");
            if (next == nullptr || next->isNull()) {
                followed = nullptr;
                settled = true;
                break;
            }
            if (!next->isString()) break;
            followed = next;
            name = next->asString();
        }
    }
    return settled && found == set && followed == reference;
}

// Runs `set` (null: absent) with the bookkeeping naming it; `last` is what the dump then shows.
int OrvJsonActionDB::runTrackedSet(OrvAction* action, const char* key, Json::Value* set,
                                   const Json::Value* reference, ActionDir dir,
                                   const std::string& last) {
    // Nothing to run and nothing to log: the bookkeeping would be set and cleared again with
    // nothing in between to read it.
    if (set == nullptr && !OrvLogIsEnabled()) return 0;
    const bool traced = ATRACE_ENABLED() != 0;
    if (set != nullptr && set->isArray() && !traced && !OrvLogIsEnabled()) {
        // No line and no slice reads the bookkeeping between naming the set and opening its
        // level, nor between closing them: each pair takes one hold, and a dump sees what it
        // would have seen just before or after.
        OrvActionInfo level(0, "");
        openActionSet(action, key, reference ? reference->asString() : std::string(), &level);
        runLevel(*set, action, true);
        closeActionSet(last);
        return 0;
    }
    setCurActionSet(action, key, reference ? reference->asString() : std::string());
    if (set != nullptr) {
        ORV_LOGD("fetch %s", getCurActionInfoStr().c_str());
        // A slice per action set on the action thread, named by its location.
        if (traced) ATRACE_BEGIN(getCurActionInfoStr().c_str());
        doActions(*set, action, dir);
        if (traced) ATRACE_END();
        setLastActionSet(last);
    } else {
        ORV_LOGD("nop (no define or reference: %s)", getCurActionInfoStr().c_str());
    }
    clearActionSetInfo();
    return 0;
}

int OrvJsonActionDB::executeOnExitAction(OrvAction* action) {
    return runKeyedAction(action, action->mFromAppName.c_str(), action->mFromStateName, kOnExit,
                          ACTION_DIR_EXIT, "executeOnExitAction failed: no DB exist");
}

int OrvJsonActionDB::executeOnEnterAction(OrvAction* action) {
    return runKeyedAction(action, action->mToAppName.c_str(), action->mToStateName, kOnEnter,
                          ACTION_DIR_ENTER, "executeOnEnterAction failed: no DB exist");
}

int OrvJsonActionDB::executePolicyAction(OrvAction* action) {
    return runKeyedAction(action, action->mToAppName.c_str(), action->mToStateName, kPolicy,
                          ACTION_DIR_ENTER, "executePolicyAction failed: no DB exist");
}

int OrvJsonActionDB::executeEventAction(OrvAction* action) {
    return runKeyedAction(action, action->mFromAppName.c_str(), action->mFromStateName,
                          action->mEventName, ACTION_DIR_NONE,
                          "executeEventAction failed: no DB exist");
}

Json::Value* OrvJsonActionDB::defaultResetSet() {
    Json::Value* set = lookup({"default", "action", orv::state::kReset, "policy"});
    return set != nullptr && !set->isNull() ? set : nullptr;
}

int OrvJsonActionDB::executeDefaultResetAction(OrvAction* action) {
    return runTrackedSet(action, "reset", defaultResetSet(), nullptr, ACTION_DIR_NONE,
                         "default.action.reset.policy");
}

bool OrvJsonActionDB::hasStopAction() {
    OrvLockGuard guard(mDocLock);
    static const char kKey[] = "on_stop";
    const Json::Value* set = mRoot != nullptr && mRoot->isObject()
                                 ? mRoot->find(kKey, kKey + sizeof(kKey) - 1)
                                 : nullptr;
    return set != nullptr && set->type() != Json::nullValue;
}

int OrvJsonActionDB::executeStopAction(OrvAction* action) {
    if (!hasStopAction()) return 0;
    return runTrackedSet(action, "on_stop", lookup({"on_stop"}), nullptr, ACTION_DIR_NONE,
                         "on_stop");
}

void OrvJsonActionDB::executePolicyReset() {
    OrvAction action("", orv::state::kReset, -1, -1, "reset");
    executeDefaultResetAction(&action);
}

// One set of the one-call sequences, which leave the bookkeeping alone.
void OrvJsonActionDB::runSequenceSet(OrvAction* action, const char* app, const char* state,
                                     const char* key, ActionDir dir) {
    app = orEmpty(app);
    state = orEmpty(state);
    Json::Value* reference = nullptr;
    Json::Value* set = findActionSet(app, state, key, &reference);
    if (set == nullptr) {
        ORV_LOGD("nop (no define or reference: %s.action.%s.%s)", app, state, key);
        return;
    }
    if (OrvLogIsEnabled()) {
        std::string refName = reference ? reference->asString() : "self";
        ALOGD("fetch %s.action.%s.%s reference %s", app, state, key, refName.c_str());
    }
    doActions(*set, action, dir);
    setLastActionSet(std::string(app) + ".action." + state + "." + key + "\n");
}

int OrvJsonActionDB::runSequence(OrvAction* action, bool appSwitch) {
    if (mRoot == nullptr) {
        ALOGE("no DB exist (null root)");
        return -1;
    }
    runSequenceSet(action, action->mFromAppName.c_str(), action->mFromStateName, kOnExit,
                   ACTION_DIR_EXIT);
    if (appSwitch && strcmp(orEmpty(action->mFromStateName), orv::state::kReset) != 0) {
        if (Json::Value* set = defaultResetSet()) {
            ORV_LOGD("fetch default.action.reset.policy");
            doActions(*set, action, ACTION_DIR_NONE);
            setLastActionSet("default.action.reset.policy");
        } else {
            ALOGE("nop (no define: default.action.reset.policy)");
        }
    }
    runSequenceSet(action, action->mToAppName.c_str(), action->mToStateName, kOnEnter,
                   ACTION_DIR_ENTER);
    runSequenceSet(action, action->mToAppName.c_str(), action->mToStateName, kPolicy,
                   ACTION_DIR_ENTER);
    return 0;
}

int OrvJsonActionDB::executeAppChangeAction(OrvAction* action) {
    return runSequence(action, true);
}

int OrvJsonActionDB::executeStateChangeAction(OrvAction* action) {
    return runSequence(action, false);
}

int OrvJsonActionDB::doActions(Json::Value& set, OrvAction* action, ActionDir /*dir*/) {
    runMethods(set, action, true);
    return 0;
}

// Arrays are never grown by lookups, so iterating one without mDocLock is safe.
void OrvJsonActionDB::runMethods(Json::Value& set, OrvAction* action, bool clearNames) {
    if (!set.isArray()) {
        ALOGE("Invalid action set (not an array) %s", getCurActionInfoStr().c_str());
        return;
    }
    OrvActionInfo info(0, "");
    pushActionInfo(&info);
    runLevel(set, action, clearNames);
    popActionInfo();
}

void OrvJsonActionDB::runLevel(Json::Value& set, OrvAction* action, bool clearNames) {
    const std::vector<const MethodForm*>& forms = formsOf(set);
    for (size_t i = 0; i < forms.size(); ++i) {
        const MethodForm& form = *forms[i];
        if (form.type != METHOD_UNKNOWN) {
            // Index and name in one hold; the emptied name in between is never read.
            setCurActionLevel(static_cast<int>(i), form.name);
            runMethodForm(form);
        } else {
            setCurActionIndex(static_cast<int>(i), clearNames);
            doActionRead(set[static_cast<Json::ArrayIndex>(i)], action);
        }
    }
}

// An array's elements never change while the document lives (lookups do not enter arrays), so
// neither do their forms: one look-up per run instead of an element and a form per method.
const std::vector<const OrvJsonActionDB::MethodForm*>& OrvJsonActionDB::formsOf(Json::Value& set) {
    auto known = mSetForms.find(&set);
    if (known != mSetForms.end()) return known->second;
    std::vector<const MethodForm*> forms;
    forms.reserve(set.size());
    for (Json::ArrayIndex i = 0; i < set.size(); ++i) forms.push_back(&methodForm(set[i]));
    return mSetForms.emplace(&set, std::move(forms)).first->second;
}

int OrvJsonActionDB::doAction(Json::Value& methodObject, OrvAction* action) {
    const MethodForm& form = methodForm(methodObject);
    if (form.type != METHOD_UNKNOWN) {
        setCurActionInfo(form.name);
        runMethodForm(form);
        return 0;
    }
    return doActionRead(methodObject, action);
}

int OrvJsonActionDB::doActionRead(Json::Value& methodObject, OrvAction* action) {
    // A null element reads as an object without "method", as the inserting lookup would see it.
    if (methodObject.isNull()) {
        ALOGE("Invalid action (no method) %s", getCurActionInfoStr().c_str());
        return 1;
    }
    if (!methodObject.isObject()) {
        ALOGE("Invalid action (not an object) %s", getCurActionInfoStr().c_str());
        return 1;
    }
    const Json::Value& method = member(methodObject, "method");
    if (method.isNull()) {
        ALOGE("Invalid action (no method) %s", getCurActionInfoStr().c_str());
        return 1;
    }
    if (!method.isString()) {
        ALOGE("Invalid action (method is not a string) %s", getCurActionInfoStr().c_str());
        return 1;
    }
    // By method type; the current level is named after the method text, which matched exactly.
    typedef void (OrvJsonActionDB::*Handler)(Json::Value&, OrvAction*);
    static const Handler kHandlers[METHOD_UNKNOWN] = {
        &OrvJsonActionDB::doXfsAction,     &OrvJsonActionDB::doOrvIoctlAction,
        &OrvJsonActionDB::doIoctlAction,   &OrvJsonActionDB::doSetPropAction,
        &OrvJsonActionDB::doProgramAction, &OrvJsonActionDB::doGroupAction,
    };
    const char* name = method.asCString();
    int type = getMethodType(name);
    if (type == METHOD_UNKNOWN) {
        setCurActionInfo("(unknown)");
        ALOGE("Unknown method(%s)", name);
        return 0;
    }
    setCurActionInfo(name);
    if (type == METHOD_PROGRAM && !mEncrypted) {
        ALOGE("\"program\" method only support with encrypted policy DB @%s",
              getCurActionInfoStr().c_str());
        return 0;
    }
    const Handler handler = kHandlers[type];
    (this->*handler)(methodObject, action);
    return 0;
}

void OrvJsonActionDB::doGroupAction(Json::Value& methodObject, OrvAction* action) {
    const char* name = methodPath(methodObject);
    if (name == nullptr) return;
    Json::Value* group = lookup({"policy_group", name});
    if (group == nullptr || group->isNull()) {
        if (OrvLogIsEnabled()) {
            ALOGD("Cannot find policy_group.%s. (fetch %s)", name, getCurActionInfoStr().c_str());
        }
        return;
    }
    setCurActionInfo(name);
    runMethods(*group, action, false);
}
