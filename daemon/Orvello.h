#pragma once
#include <string>

#include "core/OrvTimeoutWork.h"
#include "daemon/OrvListener.h"
#include "policy/OrvActionManager.h"
#include "protocol/OrvMsgHandler.h"
#include "scenario/OrvContext.h"

extern const char* ORV_PROP_ENABLE;  // "sys.orv.enable"

// The daemon: owns every long-lived component. One instance, created by the first init().
class Orvello {
  public:
    // true once the policy is loaded and everything is wired; false also on a second call.
    static bool init();
    // Starts the socket listener and gives the calling thread to the update queue. Returns
    // false at once when the listener cannot start ("sys.orv.enable" is then "false").
    static bool run();
    void dumpState(std::string& out);
    // Stops the listener thread and detaches the timer, so that no event reaches the daemon
    // any more. For the stop on SIGINT: exit() destroys function-local statics (the scenario's
    // states among them) before the daemon object.
    static void stopEvents();
    // Runs the policy's "on_stop" set, waiting at most `timeoutMs`; false when there is none.
    static bool runStopActions(int timeoutMs);
    static bool hasStopActions();

  private:
    static Orvello* mInstance;  // null until init() has succeeded
    Orvello();
    ~Orvello();
    void detachEvents();
    static void listenerFailed(int err);
    Orvello(const Orvello&) = delete;
    Orvello& operator=(const Orvello&) = delete;

    // Declaration order is construction order.
    OrvContext mContext;
    OrvMsgHandler mMsgHandler;
    OrvListener mListener;
    OrvActionManager mActionManager;
    OrvTimeoutWork mTimeoutWork;
    bool mListening;  // started and not yet stopped; under the listener lock
};
