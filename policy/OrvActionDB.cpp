#define LOG_TAG "OrvActionManager"
#include "policy/OrvActionDB.h"

#include <string.h>

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
    pthread_mutex_lock(&mInfoLock);
    mActionInfoStack.push_back(info);
    pthread_mutex_unlock(&mInfoLock);
}

void OrvActionDB::popActionInfo() {
    pthread_mutex_lock(&mInfoLock);
    if (!mActionInfoStack.empty()) mActionInfoStack.pop_back();
    pthread_mutex_unlock(&mInfoLock);
}

void OrvActionDB::setCurActionInfo(const char* name) {
    pthread_mutex_lock(&mInfoLock);
    if (!mActionInfoStack.empty()) mActionInfoStack.back()->setName(name);
    pthread_mutex_unlock(&mInfoLock);
}

void OrvActionDB::setCurActionIndex(int index, bool clearName) {
    pthread_mutex_lock(&mInfoLock);
    if (!mActionInfoStack.empty()) {
        mActionInfoStack.back()->mIndex = index;
        if (clearName) mActionInfoStack.back()->setName(nullptr);
    }
    pthread_mutex_unlock(&mInfoLock);
}

void OrvActionDB::clearActionSetInfo() {
    pthread_mutex_lock(&mInfoLock);
    mCurAction = nullptr;
    mCurActionSetKey = "";
    mCurReference.clear();
    pthread_mutex_unlock(&mInfoLock);
}

void OrvActionDB::setCurActionSet(OrvAction* action, const char* key, const std::string& reference) {
    pthread_mutex_lock(&mInfoLock);
    mCurAction = action;
    mCurActionSetKey = key ? key : "";
    mCurReference = reference;
    pthread_mutex_unlock(&mInfoLock);
}

void OrvActionDB::setLastActionSet(const std::string& text) {
    pthread_mutex_lock(&mInfoLock);
    mLastActionSet.str("");
    mLastActionSet << text;
    pthread_mutex_unlock(&mInfoLock);
}

std::string OrvActionDB::getLastActionSet() {
    pthread_mutex_lock(&mInfoLock);
    std::string text = mLastActionSet.str();
    pthread_mutex_unlock(&mInfoLock);
    return text;
}

std::string OrvActionDB::getCurActionInfoStr() {
    std::string out;
    pthread_mutex_lock(&mInfoLock);
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
    pthread_mutex_unlock(&mInfoLock);
    return out;
}
