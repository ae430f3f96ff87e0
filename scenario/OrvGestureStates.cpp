#define LOG_TAG "OrvState"
#include "scenario/OrvGestureStates.h"

#include "core/OrvLog.h"
#include "scenario/OrvAppStates.h"
#include "scenario/OrvContext.h"

// Leaving the gesture the way run would, without its pending expiry.
bool OrvGestureBase::onLaunch(OrvContext* ctx, const char* name) {
    cancelTimer();
    return OrvRun::onLaunch(ctx, name);
}

bool OrvGestureBase::onStart(OrvContext* ctx, const char* name, int pid, int glTid) {
    cancelTimer();
    if (isSameApp(ctx, name)) {
        updatePid(ctx, pid);
        ctx->mGLTid = glTid;
        ctx->changeState(OrvRun::getInstance());
    } else {
        ctx->changeState(OrvStart::getInstance(), name, pid, glTid);
    }
    return true;
}

bool OrvGestureBase::onDisplayed(OrvContext* ctx, const char* pname, int pid) {
    cancelTimer();
    if (!isSameApp(ctx, pname)) return false;
    updatePid(ctx, pid);
    ctx->changeState(OrvRun::getInstance());
    return true;
}

bool OrvGestureBase::onScaleStart(OrvContext* ctx, const char* pname, int pid) {
    cancelTimer();
    return OrvRun::onScaleStart(ctx, pname, pid);
}

bool OrvGestureBase::onListScroll(OrvContext* ctx, const char* pname, int pid) {
    cancelTimer();
    return OrvRun::onListScroll(ctx, pname, pid);
}

bool OrvGestureBase::onListFling(OrvContext* ctx, const char* pname, int pid) {
    cancelTimer();
    return OrvRun::onListFling(ctx, pname, pid);
}

bool OrvGestureBase::onTransit(OrvContext* ctx, int, const char*, int toPid, const char* toName,
                               int toGlTid) {
    cancelTimer();
    if (isTransitToSelf(ctx, toName, toPid, toGlTid)) {
        ctx->changeState(OrvRun::getInstance());
    } else {
        ctx->changeState(OrvRun::getInstance(), toName, toPid, toGlTid);
    }
    return true;
}

bool OrvGestureBase::onRotateStart(OrvContext* ctx) {
    cancelTimer();
    return OrvRun::onRotateStart(ctx);
}

bool OrvGestureBase::onTimeout(OrvContext* ctx) {
    ctx->changeState(OrvRun::getInstance());
    return true;
}

bool OrvGestureBase::repeat(OrvContext* ctx, const char* pname, int pid) {
    cancelTimer();
    if (!isSameApp(ctx, pname)) return forceReset(ctx);
    updatePid(ctx, pid);
    armTimer(ctx);
    return true;
}

OrvGestureDown* OrvGestureDown::getInstance() {
    static OrvGestureDown instance;
    return &instance;
}

bool OrvGestureDown::onGestureDown(OrvContext* ctx, const char* pname, int pid) {
    return repeat(ctx, pname, pid);
}

OrvGesturePress* OrvGesturePress::getInstance() {
    static OrvGesturePress instance;
    return &instance;
}

bool OrvGesturePress::onGesturePress(OrvContext* ctx, const char* pname, int pid) {
    return repeat(ctx, pname, pid);
}

OrvGestureTap* OrvGestureTap::getInstance() {
    static OrvGestureTap instance;
    return &instance;
}

bool OrvGestureTap::onGestureTap(OrvContext* ctx, const char* pname, int pid) {
    return repeat(ctx, pname, pid);
}

OrvGestureScroll* OrvGestureScroll::getInstance() {
    static OrvGestureScroll instance;
    return &instance;
}

bool OrvGestureScroll::onGestureScroll(OrvContext* ctx, const char* pname, int pid) {
    return repeat(ctx, pname, pid);
}

OrvGestureFling* OrvGestureFling::getInstance() {
    static OrvGestureFling instance;
    return &instance;
}

bool OrvGestureFling::onGestureFling(OrvContext* ctx, const char* pname, int pid) {
    return repeat(ctx, pname, pid);
}

OrvGestureLongPress* OrvGestureLongPress::getInstance() {
    static OrvGestureLongPress instance;
    return &instance;
}

bool OrvGestureLongPress::onGestureLongPress(OrvContext* ctx, const char* pname, int pid) {
    return repeat(ctx, pname, pid);
}
