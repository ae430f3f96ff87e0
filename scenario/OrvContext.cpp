#define LOG_TAG "OrvContext"
#include "scenario/OrvContext.h"

#include <stdlib.h>
#include <string.h>

#include <sstream>

#include "core/OrvLog.h"
#include "core/OrvTimer.h"
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

void OrvContext::onAppEvent(const char* op, bool (OrvState::*handler)(OrvContext*, const char*, int),
                            const char* pname, int pid) {
    ORV_LOGD(ORV_CTX_HEAD "  -> %s(pname=%s, pid=%d)", ORV_CTX_ARGS, op, pname, pid);
    (mState->*handler)(this, pname, pid);
    logAfter();
}

void OrvContext::onBareEvent(bool withScreen, const char* call,
                             bool (OrvState::*handler)(OrvContext*)) {
    if (withScreen) {
        ORV_LOGD("[%s][pid=%d,GLTid=%d,name=%s,Screen=%s]\n%s", ORV_CTX_ARGS, onOff(mIsScreenOn),
                 call);
    } else {
        ORV_LOGD(ORV_CTX_HEAD "%s", ORV_CTX_ARGS, call);
    }
    (mState->*handler)(this);
    logAfter();
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
    onAppEvent("onDisplayed", &OrvState::onDisplayed, pname, pid);
}

void OrvContext::onListScroll(const char* pname, int pid) {
    onAppEvent("onListScroll", &OrvState::onListScroll, pname, pid);
}

void OrvContext::onListFling(const char* pname, int pid) {
    onAppEvent("onListFling", &OrvState::onListFling, pname, pid);
}

void OrvContext::onListIdle(const char* pname, int pid) {
    onAppEvent("onListIdle", &OrvState::onListIdle, pname, pid);
}

void OrvContext::onTransit(int fromPid, const char* fromName, int toPid, const char* toName,
                           int toGlTid) {
    ORV_LOGD(ORV_CTX_HEAD "  -> onTransit(from=%d,%s to=%d,%s,%d)", ORV_CTX_ARGS, fromPid, fromName,
             toPid, toName, toGlTid);
    mState->onTransit(this, fromPid, fromName, toPid, toName, toGlTid);
    logAfter();
}

void OrvContext::onRotateStart() {
    onBareEvent(false, "  -> onRotateStart()", &OrvState::onRotateStart);
}

void OrvContext::onRotateStop() {
    onBareEvent(false, "  ->onRotateStop()", &OrvState::onRotateStop);
}

void OrvContext::onScaleStart(const char* pname, int pid) {
    onAppEvent("onScaleStart", &OrvState::onScaleStart, pname, pid);
}

void OrvContext::onScaleEnd(const char* pname, int pid) {
    onAppEvent("onScaleEnd", &OrvState::onScaleEnd, pname, pid);
}

void OrvContext::onAttachGLThread(const char* pname, int pid, int tid) {
    ORV_LOGD(ORV_CTX_HEAD "  -> onAttachGLTid(pname=%s, pid=%d, tid=%d)", ORV_CTX_ARGS, pname, pid,
             tid);
    mState->onAttachGLThread(this, pname, pid, tid);
    logAfter();
}

void OrvContext::onScreenOff() {
    onBareEvent(true, "  ->onScreenOff()", &OrvState::onScreenOff);
}

void OrvContext::onScreenOn() {
    onBareEvent(true, " ->onScreenOn()", &OrvState::onScreenOn);
}

void OrvContext::onGestureDown(const char* pname, int pid) {
    onAppEvent("onGestureDown", &OrvState::onGestureDown, pname, pid);
}

void OrvContext::onGesturePress(const char* pname, int pid) {
    onAppEvent("onGesturePress", &OrvState::onGesturePress, pname, pid);
}

void OrvContext::onGestureTap(const char* pname, int pid) {
    onAppEvent("onGestureTap", &OrvState::onGestureTap, pname, pid);
}

void OrvContext::onGestureScroll(const char* pname, int pid) {
    onAppEvent("onGestureScroll", &OrvState::onGestureScroll, pname, pid);
}

void OrvContext::onGestureFling(const char* pname, int pid) {
    onAppEvent("onGestureFling", &OrvState::onGestureFling, pname, pid);
}

void OrvContext::onGestureLongPress(const char* pname, int pid) {
    onAppEvent("onGestureLongPress", &OrvState::onGestureLongPress, pname, pid);
}

void OrvContext::onTimeout() {
    onBareEvent(false, "  -> onTimeout()", &OrvState::onTimeout);
}

void OrvContext::changeState(OrvState* next) {
    auto* action = new OrvActionManager::OrvStateChangeAction(
        mState->getStateNameStr(), next->getStateNameStr(), mAppName.c_str(), mPid, mGLTid);
    const bool hadEndTimer = hasEndTimer();
    mState = next;
    if (next->isTimeout()) {
        setTimeout(next);
    } else {
        mTimeout = endTimeout(next);
    }
    action->send(mActionManager);
    armEndTimer(hadEndTimer);
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
    const bool hadEndTimer = hasEndTimer();
    mAppName = name ? name : "";
    mPid = pid;
    mGLTid = tid;
    mState = next;
    if (next->isTimeout()) {
        setTimeout(next);
    } else {
        mTimeout = endTimeout(next);
    }
    action->send(mActionManager);
    armEndTimer(hadEndTimer);
}

bool OrvContext::hasEndTimer() {
    return !mState->isTimeout() && mTimeout > 0;
}

// States left on an event of the framework; a lost event would keep them for ever, so the
// policy may give each a time-out ("launch_timeout", ...). 0: none, as without the parameter.
int OrvContext::endTimeout(OrvState* state) {
    static const char* const kEventEnded[] = {"launch",          "start",          "scale",
                                              "listview_scroll", "listview_fling", "rotate"};
    const char* name = state->getStateNameStr();
    bool ended = false;
    // The first letter rules out most names without a call.
    for (const char* s : kEventEnded) ended = ended || (s[0] == name[0] && strcmp(s, name) == 0);
    if (!ended || mAppName.empty()) return 0;
    // Built on the stack: every state change asks. The names above are short.
    static const char kSuffix[] = "_timeout";
    char key[32];
    const size_t length = strlen(name);
    memcpy(key, name, length);
    memcpy(key + length, kSuffix, sizeof(kSuffix));
    std::string value;
    if (!mActionManager->findAppParam(mAppName.c_str(), key, value)) return 0;
    int ms = atoi(value.c_str());
    return ms >= 1 ? ms : 0;
}

// After a move into a state that is not a gesture: its own time-out replaces the timer, and one
// left over from the previous state's time-out is cancelled. Gestures arm their own.
void OrvContext::armEndTimer(bool hadEndTimer) {
    if (mState->isTimeout()) return;
    if (mTimeout > 0) {
        OrvTimer::getInstance().set(mTimeout);
    } else if (hadEndTimer) {
        OrvTimer::getInstance().reset();
    }
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
