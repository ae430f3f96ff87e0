#define LOG_TAG "OrvState"
#include "scenario/OrvRunStates.h"

#include "core/OrvLog.h"
#include "scenario/OrvAppStates.h"
#include "scenario/OrvContext.h"
#include "scenario/OrvGestureStates.h"

bool OrvRunBase::onLaunch(OrvContext* ctx, const char* name) {
    ctx->changeState(OrvLaunch::getInstance(), name, -1, -1);
    return true;
}

bool OrvRunBase::onStart(OrvContext* ctx, const char* name, int pid, int glTid) {
    return refreshOrStart(ctx, name, pid, glTid);
}

// Another app's activity showing up does not take the foreground from the tracked one.
bool OrvRunBase::onDisplayed(OrvContext* ctx, const char* pname, int pid) {
    if (!isSameApp(ctx, pname)) return false;
    updatePid(ctx, pid);
    return true;
}

bool OrvRunBase::onTransit(OrvContext* ctx, int, const char*, int toPid, const char* toName,
                           int toGlTid) {
    if (isTransitToSelf(ctx, toName, toPid, toGlTid)) return true;
    ctx->changeState(OrvRun::getInstance(), toName, toPid, toGlTid);
    return true;
}

bool OrvRunBase::onRotateStart(OrvContext* ctx) {
    ctx->changeState(OrvRotate::getInstance());
    return true;
}

OrvRun* OrvRun::getInstance() {
    static OrvRun instance;
    return &instance;
}

bool OrvRun::toGesture(OrvContext* ctx, const char* pname, int pid, OrvState* next) {
    cancelTimer();
    if (!isSameApp(ctx, pname)) return forceReset(ctx);
    updatePid(ctx, pid);
    ctx->changeState(next);
    armTimer(ctx);
    return true;
}

bool OrvRun::onScaleStart(OrvContext* ctx, const char* pname, int pid) {
    return moveOrReset(ctx, pname, pid, OrvScale::getInstance());
}

bool OrvRun::onListScroll(OrvContext* ctx, const char* pname, int pid) {
    return moveOrReset(ctx, pname, pid, OrvListviewScroll::getInstance());
}

bool OrvRun::onListFling(OrvContext* ctx, const char* pname, int pid) {
    return moveOrReset(ctx, pname, pid, OrvListviewFling::getInstance());
}

bool OrvRun::onGestureDown(OrvContext* ctx, const char* pname, int pid) {
    return toGesture(ctx, pname, pid, OrvGestureDown::getInstance());
}

bool OrvRun::onGesturePress(OrvContext* ctx, const char* pname, int pid) {
    return toGesture(ctx, pname, pid, OrvGesturePress::getInstance());
}

bool OrvRun::onGestureTap(OrvContext* ctx, const char* pname, int pid) {
    return toGesture(ctx, pname, pid, OrvGestureTap::getInstance());
}

bool OrvRun::onGestureScroll(OrvContext* ctx, const char* pname, int pid) {
    return toGesture(ctx, pname, pid, OrvGestureScroll::getInstance());
}

bool OrvRun::onGestureFling(OrvContext* ctx, const char* pname, int pid) {
    return toGesture(ctx, pname, pid, OrvGestureFling::getInstance());
}

bool OrvRun::onGestureLongPress(OrvContext* ctx, const char* pname, int pid) {
    return toGesture(ctx, pname, pid, OrvGestureLongPress::getInstance());
}

OrvScale* OrvScale::getInstance() {
    static OrvScale instance;
    return &instance;
}

bool OrvScale::onScaleEnd(OrvContext* ctx, const char* pname, int pid) {
    return moveOrReset(ctx, pname, pid, OrvRun::getInstance());
}

bool OrvScale::onListScroll(OrvContext* ctx, const char* pname, int pid) {
    return moveOrReset(ctx, pname, pid, OrvListviewScroll::getInstance());
}

bool OrvScale::onListFling(OrvContext* ctx, const char* pname, int pid) {
    return moveOrReset(ctx, pname, pid, OrvListviewFling::getInstance());
}

OrvListviewScroll* OrvListviewScroll::getInstance() {
    static OrvListviewScroll instance;
    return &instance;
}

bool OrvListviewScroll::onListFling(OrvContext* ctx, const char* pname, int pid) {
    return moveOrReset(ctx, pname, pid, OrvListviewFling::getInstance());
}

bool OrvListviewScroll::onListIdle(OrvContext* ctx, const char* pname, int pid) {
    return moveOrReset(ctx, pname, pid, OrvRun::getInstance());
}

OrvListviewFling* OrvListviewFling::getInstance() {
    static OrvListviewFling instance;
    return &instance;
}

bool OrvListviewFling::onListIdle(OrvContext* ctx, const char* pname, int pid) {
    return moveOrReset(ctx, pname, pid, OrvRun::getInstance());
}

OrvRotate* OrvRotate::getInstance() {
    static OrvRotate instance;
    return &instance;
}

// The list settles while the screen turns; only a foreign app's list resets.
bool OrvRotate::onListIdle(OrvContext* ctx, const char* pname, int pid) {
    if (!isSameApp(ctx, pname)) return forceReset(ctx);
    updatePid(ctx, pid);
    return true;
}

bool OrvRotate::onRotateStop(OrvContext* ctx) {
    ctx->changeState(OrvRun::getInstance());
    return true;
}
