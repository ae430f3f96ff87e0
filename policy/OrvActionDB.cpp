#define LOG_TAG "OrvActionManager"
#include "policy/OrvActionDB.h"

#include <string.h>

#include "core/OrvLockGuard.h"
#include "core/OrvLog.h"
#include "policy/OrvOrEmpty.h"
#include "protocol/include/orv/protocol.h"

OrvActionDB::OrvActionDB(bool encrypted)
    : mEncrypted(encrypted), mCurAction(nullptr), mCurActionSetKey("") {
    pthread_mutex_init(&mInfoLock, nullptr);
}

OrvActionDB::~OrvActionDB() {
    ORV_LOGD("OrvActionDB destructor is called");
    pthread_mutex_destroy(&mInfoLock);
    // The entries live on the stacks of the functions that pushed them.
    mActionInfoStack.clear();
}

void OrvActionDB::dumpState(std::string& /*out*/) {}

void OrvActionDB::pushActionInfo(OrvActionInfo* info) {
    OrvLockGuard guard(mInfoLock);
    mActionInfoStack.push_back(info);
}

void OrvActionDB::popActionInfo() {
    OrvLockGuard guard(mInfoLock);
    if (!mActionInfoStack.empty()) mActionInfoStack.pop_back();
}

void OrvActionDB::setCurActionInfo(const char* name) {
    OrvLockGuard guard(mInfoLock);
    if (!mActionInfoStack.empty()) mActionInfoStack.back()->setName(name);
}

void OrvActionDB::setCurActionIndex(int index, bool clearName) {
    OrvLockGuard guard(mInfoLock);
    if (!mActionInfoStack.empty()) {
        mActionInfoStack.back()->mIndex = index;
        if (clearName) mActionInfoStack.back()->setName(nullptr);
    }
}

void OrvActionDB::setCurActionLevel(int index, const char* name) {
    OrvLockGuard guard(mInfoLock);
    if (!mActionInfoStack.empty()) {
        mActionInfoStack.back()->mIndex = index;
        mActionInfoStack.back()->setName(name);
    }
}

void OrvActionDB::clearActionSetInfo() {
    OrvLockGuard guard(mInfoLock);
    clearActionSetInfoLocked();
}

void OrvActionDB::clearActionSetInfoLocked() {
    mCurAction = nullptr;
    mCurActionSetKey = "";
    mCurReference.clear();
}

void OrvActionDB::setCurActionSet(OrvAction* action, const char* key, const std::string& reference) {
    OrvLockGuard guard(mInfoLock);
    setCurActionSetLocked(action, key, reference);
}

void OrvActionDB::setCurActionSetLocked(OrvAction* action, const char* key,
                                        const std::string& reference) {
    mCurAction = action;
    mCurActionSetKey = key ? key : "";
    mCurReference = reference;
}

void OrvActionDB::openActionSet(OrvAction* action, const char* key, const std::string& reference,
                                OrvActionInfo* level) {
    OrvLockGuard guard(mInfoLock);
    setCurActionSetLocked(action, key, reference);
    mActionInfoStack.push_back(level);
}

void OrvActionDB::closeActionSet(const std::string& last) {
    OrvLockGuard guard(mInfoLock);
    if (!mActionInfoStack.empty()) mActionInfoStack.pop_back();
    mLastActionSet = last;
    clearActionSetInfoLocked();
}

void OrvActionDB::setLastActionSet(const std::string& text) {
    OrvLockGuard guard(mInfoLock);
    mLastActionSet = text;
}

std::string OrvActionDB::getLastActionSet() {
    OrvLockGuard guard(mInfoLock);
    return mLastActionSet;
}

std::string OrvActionDB::getCurActionInfoStr() {
    std::string out;
    OrvLockGuard guard(mInfoLock);
    if (mCurAction != nullptr) {
        if (strcmp(mCurActionSetKey, orv::state::kReset) == 0) {
            out = "default.action.reset.policy";
        } else if (strcmp(mCurActionSetKey, "on_stop") == 0) {
            out = "on_stop";
        } else {
            bool exiting = strcmp(mCurActionSetKey, "on_exit") == 0;
            out = exiting ? mCurAction->mFromAppName : mCurAction->mToAppName;
            out += ".action.";
            out += orEmpty(exiting ? mCurAction->mFromStateName : mCurAction->mToStateName);
            out += ".";
            out += mCurActionSetKey;
        }
        if (!mCurReference.empty()) {
            out += "(reference " + mCurReference + ")";
        }
    }
    for (const OrvActionInfo* info : mActionInfoStack) {
        out += "[" + std::to_string(info->mIndex) + "]" + info->mName;
    }
    return out;
}
