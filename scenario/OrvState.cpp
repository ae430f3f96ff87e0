#define LOG_TAG "OrvState"
#include "scenario/OrvState.h"

#include <string.h>

#include "daemon/OrvLog.h"
#include "daemon/OrvTimer.h"
#include "scenario/OrvAppStates.h"
#include "scenario/OrvContext.h"

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

bool OrvState::resetWith(OrvContext* ctx, const char* line) {
    ALOGW("%s", line);
    return forceReset(ctx);
}

bool OrvState::ignore(const char* line) {
    ALOGW("%s", line);
    return false;
}

bool OrvState::ignoreOrReset(OrvContext* ctx, const char* pname, int pid, const char* ignoredLine,
                             const char* resetLine) {
    if (isSameApp(ctx, pname)) {
        updatePid(ctx, pid);
        return ignore(ignoredLine);
    }
    return resetWith(ctx, resetLine);
}

bool OrvState::moveOrReset(OrvContext* ctx, const char* pname, int pid, OrvState* next) {
    if (isSameApp(ctx, pname)) {
        updatePid(ctx, pid);
        ctx->changeState(next);
        return true;
    }
    return forceReset(ctx);
}

bool OrvState::attachOrReset(OrvContext* ctx, const char* pname, int pid, int tid,
                             const char* resetLine) {
    if (isSameApp(ctx, pname)) {
        updatePid(ctx, pid);
        ctx->mGLTid = tid;
        return true;
    }
    if (resetLine) {
        ALOGW("%s", resetLine);
    }
    return forceReset(ctx);
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
    return resetWith(ctx, "unexpected onLaunch event causes state reset by default.");
}

bool OrvState::onStart(OrvContext* ctx, const char*, int, int) {
    return resetWith(ctx, "unexpected onStart event causes state reset by default.");
}

bool OrvState::onDisplayed(OrvContext* ctx, const char* pname, int pid) {
    return ignoreOrReset(ctx, pname, pid, "unexpected onDisplayed event is ignored by default.",
                         "unexpected onDisplayed event causes state reset by default.");
}

bool OrvState::onScaleStart(OrvContext* ctx, const char* pname, int pid) {
    return ignoreOrReset(ctx, pname, pid, "unexpected onScaleStart event is ignored by default.",
                         "unexpected onScaleStart event causes state reset by default.");
}

bool OrvState::onScaleEnd(OrvContext* ctx, const char* pname, int pid) {
    return ignoreOrReset(ctx, pname, pid, "unexpected onScaleEnd event is ignored by default.",
                         "unexpected onScaleEnd event causes state reset by default.");
}

bool OrvState::onListScroll(OrvContext* ctx, const char* pname, int pid) {
    return ignoreOrReset(ctx, pname, pid, "unexpected onListScroll event is ignored by default.",
                         "unexpected onListScroll event causes state reset by default.");
}

bool OrvState::onListFling(OrvContext* ctx, const char* pname, int pid) {
    return ignoreOrReset(ctx, pname, pid, "unexpected onListFling event is ignored by default.",
                         "unexpected onListFling event causes state reset by default.");
}

bool OrvState::onListIdle(OrvContext* ctx, const char* pname, int pid) {
    return ignoreOrReset(ctx, pname, pid, "unexpected onListIdle event is ignored by default.",
                         "unexpected onListIdle event causes state reset by default.");
}

bool OrvState::onTransit(OrvContext* ctx, int, const char*, int toPid, const char* toName,
                         int toGlTid) {
    // Deliberately an identity test on the context's own text, not a comparison.
    if (toName == ctx->mAppName.c_str()) {
        ctx->mPid = toPid;
        ctx->mGLTid = toGlTid;
        return ignore("unexpected onTransit event is ignored by default.");
    }
    return resetWith(ctx, "unexpected onTransit event causes state reset by default.");
}

bool OrvState::onRotateStart(OrvContext*) {
    return ignore("unexpected onRotateStart event is ignored by default.");
}

bool OrvState::onRotateStop(OrvContext*) {
    return ignore("unexpected onRotateStop event is ignored by default.");
}

bool OrvState::onAttachGLThread(OrvContext* ctx, const char* pname, int pid, int tid) {
    return attachOrReset(ctx, pname, pid, tid,
                         "unexpected onAttachGLThread event causes state reset by default.");
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
    ctx->mIsScreenOn = true;
    ctx->changeState(OrvReset::getInstance(), "", -1, -1);
    return true;
}

bool OrvState::onGestureDown(OrvContext*, const char*, int) {
    return ignore("unexpected onGestureDown event is ignored by default.");
}

bool OrvState::onGesturePress(OrvContext*, const char*, int) {
    return ignore("unexpected onGesturePress event is ignored by default.");
}

bool OrvState::onGestureTap(OrvContext*, const char*, int) {
    return ignore("unexpected onGestureTap event is ignored by default.");
}

bool OrvState::onGestureScroll(OrvContext*, const char*, int) {
    return ignore("unexpected onGestureScroll event is ignored by default.");
}

bool OrvState::onGestureFling(OrvContext*, const char*, int) {
    return ignore("unexpected onGestureFling event is ignored by default.");
}

bool OrvState::onGestureLongPress(OrvContext*, const char*, int) {
    return ignore("unexpected onGestureLongPress event is ignored by default.");
}

bool OrvState::onTimeout(OrvContext*) {
    return ignore("unexpected onTimeout event is ignored by default.");
}

bool OrvState::isTimeout() {
    return false;
}
