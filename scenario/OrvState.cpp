#define LOG_TAG "OrvState"
#include "scenario/OrvState.h"

#include <string.h>

#include "core/OrvLog.h"
#include "core/OrvTimer.h"
#include "scenario/OrvAppStates.h"
#include "scenario/OrvContext.h"
#include "scenario/OrvRunStates.h"

bool OrvState::isSameApp(OrvContext* ctx, const char* name) {
    return strcmp(name, ctx->mAppName.c_str()) == 0;
}

void OrvState::updatePid(OrvContext* ctx, int pid) {
    if (ctx->mPid != pid) {
        ctx->mPid = pid;
    }
}

bool OrvState::forceReset(OrvContext* ctx) {
    ctx->mIsScreenOn = true;
    ctx->changeState(OrvReset::getInstance(), "", -1, -1);
    return true;
}

bool OrvState::resetWith(OrvContext* ctx, const char* op) {
    ALOGW("unexpected %s event causes state reset by default.", op);
    return forceReset(ctx);
}

bool OrvState::ignore(const char* op) {
    ALOGW("unexpected %s event is ignored by default.", op);
    return false;
}

bool OrvState::ignoreOrReset(OrvContext* ctx, const char* pname, int pid, const char* op) {
    if (isSameApp(ctx, pname)) {
        updatePid(ctx, pid);
        return ignore(op);
    }
    return resetWith(ctx, op);
}

bool OrvState::moveOrReset(OrvContext* ctx, const char* pname, int pid, OrvState* next) {
    if (isSameApp(ctx, pname)) {
        updatePid(ctx, pid);
        ctx->changeState(next);
        return true;
    }
    return forceReset(ctx);
}

bool OrvState::attachOrReset(OrvContext* ctx, const char* pname, int pid, int tid, const char* op) {
    if (isSameApp(ctx, pname)) {
        updatePid(ctx, pid);
        ctx->mGLTid = tid;
        return true;
    }
    return op ? resetWith(ctx, op) : forceReset(ctx);
}

bool OrvState::refreshOrStart(OrvContext* ctx, const char* name, int pid, int glTid) {
    if (isSameApp(ctx, name)) {
        updatePid(ctx, pid);
        ctx->mGLTid = glTid;
        return true;
    }
    ctx->changeState(OrvStart::getInstance(), name, pid, glTid);
    return true;
}

bool OrvState::isTransitToSelf(OrvContext* ctx, const char* toName, int toPid, int toGlTid) {
    if (!isSameApp(ctx, toName)) return false;
    ctx->mPid = toPid;
    ctx->mGLTid = toGlTid;
    return true;
}

void OrvState::cancelTimer() {
    OrvTimer::getInstance().reset();
}

void OrvState::armTimer(OrvContext* ctx) {
    OrvTimer::getInstance().set(ctx->mTimeout);
}

bool OrvState::onReset(OrvContext* ctx) {
    return forceReset(ctx);
}

bool OrvState::onLaunch(OrvContext* ctx, const char*) {
    return resetWith(ctx, "onLaunch");
}

bool OrvState::onStart(OrvContext* ctx, const char*, int, int) {
    return resetWith(ctx, "onStart");
}

bool OrvState::onDisplayed(OrvContext* ctx, const char* pname, int pid) {
    return ignoreOrReset(ctx, pname, pid, "onDisplayed");
}

bool OrvState::onScaleStart(OrvContext* ctx, const char* pname, int pid) {
    return ignoreOrReset(ctx, pname, pid, "onScaleStart");
}

bool OrvState::onScaleEnd(OrvContext* ctx, const char* pname, int pid) {
    return ignoreOrReset(ctx, pname, pid, "onScaleEnd");
}

bool OrvState::onListScroll(OrvContext* ctx, const char* pname, int pid) {
    return ignoreOrReset(ctx, pname, pid, "onListScroll");
}

bool OrvState::onListFling(OrvContext* ctx, const char* pname, int pid) {
    return ignoreOrReset(ctx, pname, pid, "onListFling");
}

bool OrvState::onListIdle(OrvContext* ctx, const char* pname, int pid) {
    return ignoreOrReset(ctx, pname, pid, "onListIdle");
}

bool OrvState::onTransit(OrvContext* ctx, int, const char*, int toPid, const char* toName,
                         int toGlTid) {
    // Deliberately an identity test on the context's own text, not a comparison.
    if (toName == ctx->mAppName.c_str()) {
        ctx->mPid = toPid;
        ctx->mGLTid = toGlTid;
        return ignore("onTransit");
    }
    return resetWith(ctx, "onTransit");
}

bool OrvState::onRotateStart(OrvContext*) {
    return ignore("onRotateStart");
}

bool OrvState::onRotateStop(OrvContext*) {
    return ignore("onRotateStop");
}

bool OrvState::onAttachGLThread(OrvContext* ctx, const char* pname, int pid, int tid) {
    return attachOrReset(ctx, pname, pid, tid, "onAttachGLThread");
}

bool OrvState::onProcStart(OrvContext*, const char*, int) {
    return false;
}

bool OrvState::onScreenOff(OrvContext* ctx) {
    ctx->mIsScreenOn = false;
    ctx->changeState(OrvReset::getInstance(), "", -1, -1);
    return true;
}

bool OrvState::onScreenOn(OrvContext* ctx) {
    return forceReset(ctx);
}

bool OrvState::onGestureDown(OrvContext*, const char*, int) {
    return ignore("onGestureDown");
}

bool OrvState::onGesturePress(OrvContext*, const char*, int) {
    return ignore("onGesturePress");
}

bool OrvState::onGestureTap(OrvContext*, const char*, int) {
    return ignore("onGestureTap");
}

bool OrvState::onGestureScroll(OrvContext*, const char*, int) {
    return ignore("onGestureScroll");
}

bool OrvState::onGestureFling(OrvContext*, const char*, int) {
    return ignore("onGestureFling");
}

bool OrvState::onGestureLongPress(OrvContext*, const char*, int) {
    return ignore("onGestureLongPress");
}

bool OrvState::onTimeout(OrvContext* ctx) {
    // A state that the policy gives a time-out ends as its own end event would end it.
    if (!isTimeout() && ctx->mTimeout > 0) {
        ctx->changeState(OrvRun::getInstance());
        return true;
    }
    return ignore("onTimeout");
}

bool OrvState::isTimeout() {
    return false;
}
