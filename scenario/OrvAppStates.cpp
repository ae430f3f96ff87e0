#define LOG_TAG "OrvState"
#include "scenario/OrvAppStates.h"

#include "core/OrvLog.h"
#include "scenario/OrvContext.h"
#include "scenario/OrvRunStates.h"

OrvReset* OrvReset::getInstance() {
    static OrvReset instance;
    return &instance;
}

bool OrvReset::onLaunch(OrvContext* ctx, const char* name) {
    if (!ctx->mIsScreenOn) return false;
    ctx->changeState(OrvLaunch::getInstance(), name, -1, -1);
    return true;
}

bool OrvReset::onStart(OrvContext* ctx, const char* name, int pid, int glTid) {
    if (!ctx->mIsScreenOn) return false;
    ctx->changeState(OrvStart::getInstance(), name, pid, glTid);
    return true;
}

bool OrvReset::onTransit(OrvContext* ctx, int, const char*, int toPid, const char* toName,
                         int toGlTid) {
    if (!ctx->mIsScreenOn || toPid == -1) return false;
    ctx->changeState(OrvRun::getInstance(), toName, toPid, toGlTid);
    return true;
}

bool OrvReset::onScreenOff(OrvContext* ctx) {
    ctx->mIsScreenOn = false;
    return true;
}

bool OrvReset::onScreenOn(OrvContext* ctx) {
    ctx->mIsScreenOn = true;
    return true;
}

OrvLaunch* OrvLaunch::getInstance() {
    static OrvLaunch instance;
    return &instance;
}

bool OrvLaunch::onStart(OrvContext* ctx, const char* name, int pid, int glTid) {
    return refreshOrStart(ctx, name, pid, glTid);
}

bool OrvLaunch::onDisplayed(OrvContext* ctx, const char* pname, int pid) {
    return moveOrReset(ctx, pname, pid, OrvRun::getInstance());
}

bool OrvLaunch::onTransit(OrvContext* ctx, int, const char*, int toPid, const char* toName,
                          int toGlTid) {
    return isTransitToSelf(ctx, toName, toPid, toGlTid) || forceReset(ctx);
}

bool OrvLaunch::onAttachGLThread(OrvContext* ctx, const char* pname, int pid, int tid) {
    return attachOrReset(ctx, pname, pid, tid, nullptr);
}

OrvStart* OrvStart::getInstance() {
    static OrvStart instance;
    return &instance;
}

bool OrvStart::onStart(OrvContext* ctx, const char* name, int pid, int glTid) {
    return refreshOrStart(ctx, name, pid, glTid);
}

bool OrvStart::onDisplayed(OrvContext* ctx, const char* pname, int pid) {
    return moveOrReset(ctx, pname, pid, OrvRun::getInstance());
}

bool OrvStart::onTransit(OrvContext* ctx, int, const char*, int toPid, const char* toName,
                         int toGlTid) {
    return isTransitToSelf(ctx, toName, toPid, toGlTid) || forceReset(ctx);
}

bool OrvStart::onAttachGLThread(OrvContext* ctx, const char* pname, int pid, int tid) {
    return attachOrReset(ctx, pname, pid, tid, nullptr);
}
