#define LOG_TAG "OrvActionManager"
#include "policy/OrvActionManager.h"

#include <string.h>

#include "core/OrvLockGuard.h"
#include "core/OrvLog.h"
#include "policy/OrvActionDB.h"
#include "policy/OrvOrEmpty.h"
#include "protocol/include/orv/protocol.h"

OrvActionManager::OrvActionManager() : mDB(nullptr), mNewDB(nullptr) {
    pthread_mutex_init(&mDBLock, nullptr);
    pthread_mutex_init(&mUpdateLock, nullptr);
    ORV_LOGD("constructor called");
}

OrvActionManager::~OrvActionManager() {
    ORV_LOGD("destructor called");
    // Both queue threads must be done with the databases before they go: the update first, as
    // the action thread may wait for it in checkUpdateDB. A work that outlasts the bound (a long
    // "program") keeps using them, so then they are left to the process, which is ending.
    bool updateClosed = mUpdateQueue.close();
    if (!mActionQueue.close() || !updateClosed) return;
    delete mDB;
    delete mNewDB;
    pthread_mutex_destroy(&mDBLock);
    pthread_mutex_destroy(&mUpdateLock);
}

// mDB is read without mDBLock here: only this thread replaces it, in checkUpdateDB.
void OrvActionManager::runAction(OrvAction* action, bool appSwitch) {
    if (mDB == nullptr) {
        ALOGE("%s failed: No ActionDB",
              appSwitch ? "executeAppChangeAction" : "executeStateChangeAction");
        return;
    }
    if (OrvLogIsEnabled()) {
        ALOGD("%s from[%s, %d, %d, %s] to[%s, %d, %d, %s] event[%s]", action->getName(),
              action->mFromAppName.c_str(), action->mFromPid, action->mFromGLTid,
              orEmpty(action->mFromStateName), action->mToAppName.c_str(), action->mToPid,
              action->mToGLTid, orEmpty(action->mToStateName), orEmpty(action->mEventName));
    }
    mDB->executeOnExitAction(action);
    if (appSwitch) {
        if (strcmp(orEmpty(action->mFromStateName), orv::state::kReset) != 0) {
            mDB->executeDefaultResetAction(action);
        }
        // A prepared database takes over between the old application's exit and the new one's
        // entry.
        checkUpdateDB();
    }
    mDB->executeOnEnterAction(action);
    mDB->executePolicyAction(action);
}

void OrvActionManager::executeAppChangeAction(OrvAction* action) {
    runAction(action, true);
}

void OrvActionManager::executeStateChangeAction(OrvAction* action) {
    runAction(action, false);
}

bool OrvActionManager::hasStopAction() {
    OrvLockGuard guard(mDBLock);
    return mDB != nullptr && mDB->hasStopAction();
}

void OrvActionManager::executeStopAction(OrvAction* action) {
    if (mDB != nullptr) mDB->executeStopAction(action);
}

void OrvActionManager::checkUpdateDB() {
    OrvLockGuard update(mUpdateLock);
    OrvLockGuard db(mDBLock);
    if (mNewDB != nullptr) {
        delete mDB;
        mDB = mNewDB;
        mNewDB = nullptr;
        ALOGI("DB updated");
    }
}

bool OrvActionManager::findApp(const char* appName) {
    OrvLockGuard guard(mDBLock);
    if (mDB == nullptr) {
        ALOGE("no DB exists");
        return false;
    }
    return mDB->findApp(appName);
}

bool OrvActionManager::findAppParam(const char* appName, const char* paramName, std::string& out) {
    OrvLockGuard guard(mDBLock);
    if (mDB == nullptr) {
        ALOGE("no DB exists");
        return false;
    }
    return mDB->findAppParam(appName, paramName, out);
}

void OrvActionManager::dumpState(std::string& out) {
    OrvLockGuard guard(mDBLock);
    std::string text = "[ActionManager]\n";
    if (mDB != nullptr) {
        mDB->dumpState(text);
    } else {
        text += "  PolicyDB: failed to load\n";
    }
    out = text;
}
