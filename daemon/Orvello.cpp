#define LOG_TAG "OrvOrvello"
#include "daemon/Orvello.h"

#include <cutils/properties.h>

#include "daemon/core/OrvLog.h"
#include "daemon/core/OrvTimer.h"

const char* ORV_PROP_ENABLE = "sys.orv.enable";

Orvello* Orvello::mInstance = nullptr;

Orvello::Orvello() {
    ORV_LOGD("constructor called");
}

// exit() gets here while the listener and timer threads still run: keep them out of the members
// that are about to go, or a late event calls into a half-destroyed object.
Orvello::~Orvello() {
    ORV_LOGD("destructor called");
    detachEvents();
}

void Orvello::detachEvents() {
    mListener.stopListener();
    OrvTimer::getInstance().setTimeoutWork(nullptr);
}

void Orvello::stopEvents() {
    if (mInstance != nullptr) mInstance->detachEvents();
}

bool Orvello::init() {
    // Created first so that it outlives the daemon object, whose destructor detaches from it.
    OrvTimer& timer = OrvTimer::getInstance();
    static Orvello daemon;

    if (mInstance) {
        ALOGW("cannot initiate multiple times!");
        return false;
    }
    if (!daemon.mActionManager.init()) {
        property_set(ORV_PROP_ENABLE, "false");
        return false;
    }
    daemon.mContext.mActionManager = &daemon.mActionManager;
    daemon.mMsgHandler.setContext(&daemon.mContext);
    daemon.mMsgHandler.setActionManager(&daemon.mActionManager);
    daemon.mListener.setMsgHandler(&daemon.mMsgHandler);

    timer.setTimeoutWork(&daemon.mTimeoutWork);
    timer.start();

    mInstance = &daemon;
    property_set(ORV_PROP_ENABLE, "true");
    ALOGI("initiated");
    return true;
}

void Orvello::run() {
    ALOGI("run");
    if (!mInstance) {
        ALOGE("did not initiate");
        return;
    }
    mInstance->mListener.startListener();
    mInstance->mActionManager.waitDBUpdate();
}

void Orvello::dumpState(std::string& out) {
    out.append("[version]: ");
    out.append("v1.0");
    out.append("\n");
    std::string context;
    mContext.dumpState(context);
    out.append(context);
    std::string manager;
    mActionManager.dumpState(manager);
    out.append(manager);
}
