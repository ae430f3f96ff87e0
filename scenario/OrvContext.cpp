#define LOG_TAG "OrvContext"
#include "scenario/OrvContext.h"

#include <stdlib.h>

#include <sstream>

#include "daemon/OrvLog.h"
#include "policy/OrvActionManager.h"
#include "scenario/OrvAppStates.h"
#include "scenario/OrvState.h"

#define ORV_CTX_HEAD "[%s][pid=%d,GLTid=%d,name=%s]\n"
#define ORV_CTX_ARGS mState->getStateNameStr(), mPid, mGLTid, mAppName.c_str()

namespace {
const char* onOff(bool on) {
    return on ? "on" : "off";
}
}  // namespace

OrvContext::OrvContext()
    : mState(OrvReset::getInstance()),
      mIsScreenOn(true),
      mTimeout(0),
      mPid(-1),
      mGLTid(-1),
      mActionManager(nullptr) {
    ORV_LOGD("constructor called");
}

OrvContext::~OrvContext() {
    ORV_LOGD("destructor called");
}

void OrvContext::logAfter() {
    ORV_LOGD("[%s][pid=%d,GLTid=%d,name=%s,Screen=%s,Timeout=%d]", ORV_CTX_ARGS, onOff(mIsScreenOn),
             mTimeout);
}

void OrvContext::onLaunch(const char* name) {
    ORV_LOGD(ORV_CTX_HEAD "  -> onLaunch(name=%s)", ORV_CTX_ARGS, name);
    mState->onLaunch(this, name);
    logAfter();
}

void OrvContext::onStart(const char* name, int pid, int glTid) {
    ORV_LOGD(ORV_CTX_HEAD "  -> onStart(name=%s, pid=%d, glTid=%d)", ORV_CTX_ARGS, name, pid, glTid);
    mState->onStart(this, name, pid, glTid);
    logAfter();
}

void OrvContext::onDisplayed(const char* pname, int pid) {
    ORV_LOGD(ORV_CTX_HEAD "  -> onDisplayed(pname=%s, pid=%d)", ORV_CTX_ARGS, pname, pid);
    mState->onDisplayed(this, pname, pid);
    logAfter();
}

void OrvContext::onListScroll(const char* pname, int pid) {
    ORV_LOGD(ORV_CTX_HEAD "  -> onListScroll(pname=%s, pid=%d)", ORV_CTX_ARGS, pname, pid);
    mState->onListScroll(this, pname, pid);
    logAfter();
}

void OrvContext::onListFling(const char* pname, int pid) {
    ORV_LOGD(ORV_CTX_HEAD "  -> onListFling(pname=%s, pid=%d)", ORV_CTX_ARGS, pname, pid);
    mState->onListFling(this, pname, pid);
    logAfter();
}

void OrvContext::onListIdle(const char* pname, int pid) {
    ORV_LOGD(ORV_CTX_HEAD "  -> onListIdle(pname=%s, pid=%d)", ORV_CTX_ARGS, pname, pid);
    mState->onListIdle(this, pname, pid);
    logAfter();
}

void OrvContext::onTransit(int fromPid, const char* fromName, int toPid, const char* toName,
                           int toGlTid) {
    ORV_LOGD(ORV_CTX_HEAD "  -> onTransit(from=%d,%s to=%d,%s,%d)", ORV_CTX_ARGS, fromPid, fromName,
             toPid, toName, toGlTid);
    mState->onTransit(this, fromPid, fromName, toPid, toName, toGlTid);
    logAfter();
}

void OrvContext::onRotateStart() {
    ORV_LOGD(ORV_CTX_HEAD "  -> onRotateStart()", ORV_CTX_ARGS);
    mState->onRotateStart(this);
    logAfter();
}

void OrvContext::onRotateStop() {
    ORV_LOGD(ORV_CTX_HEAD "  ->onRotateStop()", ORV_CTX_ARGS);
    mState->onRotateStop(this);
    logAfter();
}

void OrvContext::onScaleStart(const char* pname, int pid) {
    ORV_LOGD(ORV_CTX_HEAD "  -> onScaleStart(pname=%s, pid=%d)", ORV_CTX_ARGS, pname, pid);
    mState->onScaleStart(this, pname, pid);
    logAfter();
}

void OrvContext::onScaleEnd(const char* pname, int pid) {
    ORV_LOGD(ORV_CTX_HEAD "  -> onScaleEnd(pname=%s, pid=%d)", ORV_CTX_ARGS, pname, pid);
    mState->onScaleEnd(this, pname, pid);
    logAfter();
}

void OrvContext::onAttachGLThread(const char* pname, int pid, int tid) {
    ORV_LOGD(ORV_CTX_HEAD "  -> onAttachGLTid(pname=%s, pid=%d, tid=%d)", ORV_CTX_ARGS, pname, pid,
             tid);
    mState->onAttachGLThread(this, pname, pid, tid);
    logAfter();
}

void OrvContext::onScreenOff() {
    ORV_LOGD("[%s][pid=%d,GLTid=%d,name=%s,Screen=%s]\n  ->onScreenOff()", ORV_CTX_ARGS,
             onOff(mIsScreenOn));
    mState->onScreenOff(this);
    logAfter();
}

void OrvContext::onScreenOn() {
    ORV_LOGD("[%s][pid=%d,GLTid=%d,name=%s,Screen=%s]\n ->onScreenOn()", ORV_CTX_ARGS,
             onOff(mIsScreenOn));
    mState->onScreenOn(this);
    logAfter();
}

void OrvContext::onGestureDown(const char* pname, int pid) {
    ORV_LOGD(ORV_CTX_HEAD "  -> onGestureDown(pname=%s, pid=%d)", ORV_CTX_ARGS, pname, pid);
    mState->onGestureDown(this, pname, pid);
    logAfter();
}

void OrvContext::onGesturePress(const char* pname, int pid) {
    ORV_LOGD(ORV_CTX_HEAD "  -> onGesturePress(pname=%s, pid=%d)", ORV_CTX_ARGS, pname, pid);
    mState->onGesturePress(this, pname, pid);
    logAfter();
}

void OrvContext::onGestureTap(const char* pname, int pid) {
    ORV_LOGD(ORV_CTX_HEAD "  -> onGestureTap(pname=%s, pid=%d)", ORV_CTX_ARGS, pname, pid);
    mState->onGestureTap(this, pname, pid);
    logAfter();
}

void OrvContext::onGestureScroll(const char* pname, int pid) {
    ORV_LOGD(ORV_CTX_HEAD "  -> onGestureScroll(pname=%s, pid=%d)", ORV_CTX_ARGS, pname, pid);
    mState->onGestureScroll(this, pname, pid);
    logAfter();
}

void OrvContext::onGestureFling(const char* pname, int pid) {
    ORV_LOGD(ORV_CTX_HEAD "  -> onGestureFling(pname=%s, pid=%d)", ORV_CTX_ARGS, pname, pid);
    mState->onGestureFling(this, pname, pid);
    logAfter();
}

void OrvContext::onGestureLongPress(const char* pname, int pid) {
    ORV_LOGD(ORV_CTX_HEAD "  -> onGestureLongPress(pname=%s, pid=%d)", ORV_CTX_ARGS, pname, pid);
    mState->onGestureLongPress(this, pname, pid);
    logAfter();
}

void OrvContext::onTimeout() {
    ORV_LOGD(ORV_CTX_HEAD "  -> onTimeout()", ORV_CTX_ARGS);
    mState->onTimeout(this);
    logAfter();
}

void OrvContext::changeState(OrvState* next) {
    auto* action = new OrvActionManager::OrvStateChangeAction(
        mState->getStateNameStr(), next->getStateNameStr(), mAppName.c_str(), mPid, mGLTid);
    mState = next;
    if (next->isTimeout()) {
        setTimeout(next);
    } else {
        mTimeout = 0;
    }
    action->send(mActionManager);
}

void OrvContext::changeState(OrvState* next, const char* name, int pid, int tid) {
    OrvState* reset = OrvReset::getInstance();
    if (next != reset && !mActionManager->findApp(name)) {
        ALOGI("Change state to reset.(target:%s)", name ? name : "");
        next = reset;
        name = "";
        pid = -1;
        tid = -1;
    }
    // The record copies the names before mAppName is overwritten.
    auto* action = new OrvActionManager::OrvAppChangeAction(
        mAppName.c_str(), mPid, mGLTid, mState->getStateNameStr(), name ? name : "", pid, tid,
        next->getStateNameStr());
    mAppName = name ? name : "";
    mPid = pid;
    mGLTid = tid;
    mState = next;
    if (next->isTimeout()) {
        setTimeout(next);
    } else {
        mTimeout = 0;
    }
    action->send(mActionManager);
}

void OrvContext::setTimeout(OrvState* state) {
    std::string key = std::string(state->getStateNameStr()) + "_timeout";
    std::string value = "100";
    mActionManager->findAppParam(mAppName.c_str(), key.c_str(), value);
    int ms = atoi(value.c_str());
    if (ms >= 1) {
        mTimeout = ms;
        if (ms > 5000) {
            ALOGW("%s = %d is quite large!", key.c_str(), ms);
        }
    } else {
        mTimeout = 100;
    }
}

void OrvContext::dumpState(std::string& out) {
    std::ostringstream ss;
    ss << "[Context]:\n";
    ss << "   App       : " << mAppName << "\n";
    ss << "   State     : " << mState->getStateNameStr() << "\n";
    ss << "   PID       : " << mPid << "\n";
    ss << "   GLTID     : " << mGLTid << "\n";
    ss << "   Timeout   : " << mTimeout << "\n";
    ss << "   IsScreenOn: " << (mIsScreenOn ? "true" : "false") << "\n";
    out = ss.str();
}
