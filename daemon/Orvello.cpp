#define LOG_TAG "OrvOrvello"
#include "daemon/Orvello.h"

#include <cutils/properties.h>
#include <cutils/sockets.h>
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "core/OrvLockGuard.h"
#include "core/OrvLog.h"
#include "core/OrvTimer.h"
#include "policy/OrvStopAction.h"

const char* ORV_PROP_ENABLE = "sys.orv.enable";

static const char* kSocketName = "orvd";

Orvello* Orvello::mInstance = nullptr;

// Starting and stopping the listener happen on different threads (main, and the signal thread
// at SIGINT); this orders them. Never destroyed: exit() may need it last.
static pthread_mutex_t sListenerLock = PTHREAD_MUTEX_INITIALIZER;

Orvello::Orvello() : mListening(false) {
    ORV_LOGD("constructor called");
}

// exit() gets here while the listener and timer threads still run: keep them out of the members
// that are about to go, or a late event calls into a half-destroyed object.
Orvello::~Orvello() {
    ORV_LOGD("destructor called");
    detachEvents();
}

void Orvello::detachEvents() {
    {
        OrvLockGuard guard(sListenerLock);
        // The platform's stop is not idempotent and must not run without a start.
        if (mListening) mListener.stopListener();
        mListening = false;
    }
    OrvTimer::getInstance().setTimeoutWork(nullptr);
}

// Called on the signal thread while the main thread may still be in init().
void Orvello::stopEvents() {
    Orvello* daemon = __atomic_load_n(&mInstance, __ATOMIC_ACQUIRE);
    if (daemon != nullptr) daemon->detachEvents();
}

bool Orvello::runStopActions(int timeoutMs) {
    Orvello* daemon = __atomic_load_n(&mInstance, __ATOMIC_ACQUIRE);
    return daemon != nullptr && OrvStopAction::run(&daemon->mActionManager, timeoutMs);
}

bool Orvello::hasStopActions() {
    Orvello* daemon = __atomic_load_n(&mInstance, __ATOMIC_ACQUIRE);
    return daemon != nullptr && daemon->mActionManager.hasStopAction();
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
    daemon.mMsgHandler.setStateDumper(
        [](void* owner, std::string& out) { static_cast<Orvello*>(owner)->dumpState(out); },
        &daemon);
    daemon.mListener.setMsgHandler(&daemon.mMsgHandler);

    timer.setTimeoutWork(&daemon.mTimeoutWork);
    timer.start();

    __atomic_store_n(&mInstance, &daemon, __ATOMIC_RELEASE);
    property_set(ORV_PROP_ENABLE, "true");
    ALOGI("initiated");
    return true;
}

bool Orvello::run() {
    ALOGI("run");
    if (!mInstance) {
        ALOGE("did not initiate");
        return true;
    }
    bool started;
    int err;
    {
        OrvLockGuard guard(sListenerLock);
        errno = 0;
        started = mInstance->mListener.startListener() == 0;
        err = errno;
        mInstance->mListening = started;
    }
    if (!started) {
        listenerFailed(err);
        return false;
    }
    mInstance->mActionManager.waitDBUpdate();
    return true;
}

// Nobody could ever reach the daemon: say why once, and no longer claim to be enabled.
void Orvello::listenerFailed(int err) {
    std::string var = std::string(ANDROID_SOCKET_ENV_PREFIX) + kSocketName;
    // Only what the start itself set counts: an older errno would name the wrong cause.
    const char* cause = err != 0               ? strerror(err)
                        : !getenv(var.c_str()) ? "not handed over by init"
                                               : "not a usable socket";
    ALOGE("cannot listen on socket \"%s\" (%s)", kSocketName, cause);
    property_set(ORV_PROP_ENABLE, "false");
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
