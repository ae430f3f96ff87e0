#define LOG_TAG "OrvActionManager"
#include <string.h>

#include "daemon/OrvLog.h"
#include "policy/OrvJsonActionDB.h"

static const char* orEmpty(const char* text) {
    return text ? text : "";
}

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
    Json::Value* set = getActionSet(app, state, key, &reference);
    setCurActionSet(action, key, reference ? reference->asString() : std::string());
    if (set != nullptr) {
        ORV_LOGD("fetch %s", getCurActionInfoStr().c_str());
        doActions(*set, action, dir);
        setLastActionSet(std::string(app) + ".action." + state + "." + key + "\n");
    } else {
        ORV_LOGD("nop (no define or reference: %s)", getCurActionInfoStr().c_str());
    }
    clearActionSetInfo();
    return 0;
}

int OrvJsonActionDB::executeOnExitAction(OrvAction* action) {
    return runKeyedAction(action, action->mFromAppName.c_str(), action->mFromStateName, "on_exit",
                          ACTION_DIR_EXIT, "executeOnExitAction failed: no DB exist");
}

int OrvJsonActionDB::executeOnEnterAction(OrvAction* action) {
    return runKeyedAction(action, action->mToAppName.c_str(), action->mToStateName, "on_enter",
                          ACTION_DIR_ENTER, "executeOnEnterAction failed: no DB exist");
}

int OrvJsonActionDB::executePolicyAction(OrvAction* action) {
    return runKeyedAction(action, action->mToAppName.c_str(), action->mToStateName, "policy",
                          ACTION_DIR_ENTER, "executePolicyAction failed: no DB exist");
}

int OrvJsonActionDB::executeEventAction(OrvAction* action) {
    return runKeyedAction(action, action->mFromAppName.c_str(), action->mFromStateName,
                          action->mEventName, ACTION_DIR_NONE,
                          "executeEventAction failed: no DB exist");
}

int OrvJsonActionDB::executeDefaultResetAction(OrvAction* action) {
    Json::Value* set = lookup({"default", "action", "reset", "policy"});
    if (set != nullptr && set->isNull()) set = nullptr;
    setCurActionSet(action, "reset", std::string());
    if (set != nullptr) {
        ORV_LOGD("fetch %s", getCurActionInfoStr().c_str());
        doActions(*set, action, ACTION_DIR_NONE);
        setLastActionSet("default.action.reset.policy");
    } else {
        ORV_LOGD("nop (no define or reference: %s)", getCurActionInfoStr().c_str());
    }
    clearActionSetInfo();
    return 0;
}

void OrvJsonActionDB::executePolicyReset() {
    OrvAction action("", "reset", -1, -1, "reset");
    executeDefaultResetAction(&action);
}

// One set of the one-call sequences, which leave the bookkeeping alone.
void OrvJsonActionDB::runSequenceSet(OrvAction* action, const char* app, const char* state,
                                     const char* key, ActionDir dir) {
    app = orEmpty(app);
    state = orEmpty(state);
    Json::Value* reference = nullptr;
    Json::Value* set = getActionSet(app, state, key, &reference);
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

int OrvJsonActionDB::executeAppChangeAction(OrvAction* action) {
    if (mRoot == nullptr) {
        ALOGE("no DB exist (null root)");
        return -1;
    }
    runSequenceSet(action, action->mFromAppName.c_str(), action->mFromStateName, "on_exit",
                   ACTION_DIR_EXIT);
    if (strcmp(orEmpty(action->mFromStateName), "reset") != 0) {
        Json::Value* set = lookup({"default", "action", "reset", "policy"});
        if (set != nullptr && !set->isNull()) {
            ORV_LOGD("fetch default.action.reset.policy");
            doActions(*set, action, ACTION_DIR_NONE);
            setLastActionSet("default.action.reset.policy");
        } else {
            ALOGE("nop (no define: default.action.reset.policy)");
        }
    }
    runSequenceSet(action, action->mToAppName.c_str(), action->mToStateName, "on_enter",
                   ACTION_DIR_ENTER);
    runSequenceSet(action, action->mToAppName.c_str(), action->mToStateName, "policy",
                   ACTION_DIR_ENTER);
    return 0;
}

int OrvJsonActionDB::executeStateChangeAction(OrvAction* action) {
    if (mRoot == nullptr) {
        ALOGE("no DB exist (null root)");
        return -1;
    }
    runSequenceSet(action, action->mFromAppName.c_str(), action->mFromStateName, "on_exit",
                   ACTION_DIR_EXIT);
    runSequenceSet(action, action->mToAppName.c_str(), action->mToStateName, "on_enter",
                   ACTION_DIR_ENTER);
    runSequenceSet(action, action->mToAppName.c_str(), action->mToStateName, "policy",
                   ACTION_DIR_ENTER);
    return 0;
}

int OrvJsonActionDB::doActions(Json::Value& set, OrvAction* action, ActionDir /*dir*/) {
    if (!set.isArray()) {
        ALOGE("Invalid action set (not an array) %s", getCurActionInfoStr().c_str());
        return 0;
    }
    OrvActionInfo info(0, "");
    pushActionInfo(&info);
    for (Json::ArrayIndex i = 0; i < set.size(); ++i) {
        setCurActionIndex(static_cast<int>(i), true);
        doAction(set[i], action);
    }
    popActionInfo();
    return 0;
}

int OrvJsonActionDB::doAction(Json::Value& methodObject, OrvAction* action) {
    if (!methodObject.isObject()) {
        ALOGE("Invalid action (not an object) %s", getCurActionInfoStr().c_str());
        return 1;
    }
    const Json::Value& method = static_cast<const Json::Value&>(methodObject)["method"];
    if (method.isNull()) {
        ALOGE("Invalid action (no method) %s", getCurActionInfoStr().c_str());
        return 1;
    }
    if (!method.isString()) {
        ALOGE("Invalid action (method is not a string) %s", getCurActionInfoStr().c_str());
        return 1;
    }
    const char* name = method.asCString();
    switch (getMethodType(name)) {
        case METHOD_XFS:
            setCurActionInfo("xfs");
            doXfsAction(methodObject, action);
            break;
        case METHOD_ORV_IOCTL:
            setCurActionInfo("orv_ioctl");
            doOrvIoctlAction(methodObject, action);
            break;
        case METHOD_IOCTL:
            setCurActionInfo("ioctl");
            doIoctlAction(methodObject, action);
            break;
        case METHOD_PROP:
            setCurActionInfo("prop");
            doSetPropAction(methodObject, action);
            break;
        case METHOD_PROGRAM:
            setCurActionInfo("program");
            if (mEncrypted) {
                doProgramAction(methodObject, action);
            } else {
                ALOGE("\"program\" method only support with encrypted policy DB @%s",
                      getCurActionInfoStr().c_str());
            }
            break;
        case METHOD_GROUP:
            setCurActionInfo("group");
            doGroupAction(methodObject, action);
            break;
        default:
            setCurActionInfo("(unknown)");
            ALOGE("Unknown method(%s)", name);
            break;
    }
    return 0;
}

void OrvJsonActionDB::doGroupAction(Json::Value& methodObject, OrvAction* action) {
    const Json::Value& path = static_cast<const Json::Value&>(methodObject)["path"];
    if (!path.isString()) {
        ALOGE("path type is not a string. (fetch %s)", getCurActionInfoStr().c_str());
        return;
    }
    std::string name = path.asString();
    Json::Value* found = lookup({"policy_group", name.c_str()});
    if (found == nullptr || found->isNull()) {
        if (OrvLogIsEnabled()) {
            ALOGD("Cannot find policy_group.%s. (fetch %s)", name.c_str(),
                  getCurActionInfoStr().c_str());
        }
        return;
    }
    setCurActionInfo(name.c_str());
    if (!found->isArray()) {
        ALOGE("Invalid action set (not an array) %s", getCurActionInfoStr().c_str());
        return;
    }
    // Groups are arrays, which lookups never grow, so iterating without mDocLock is safe.
    Json::Value& group = *found;
    OrvActionInfo info(0, "");
    pushActionInfo(&info);
    for (Json::ArrayIndex i = 0; i < group.size(); ++i) {
        setCurActionIndex(static_cast<int>(i), false);
        doAction(group[i], action);
    }
    popActionInfo();
}
