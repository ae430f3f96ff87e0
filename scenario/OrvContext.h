#pragma once
#include <string>

class OrvActionManager;
class OrvState;

// The foreground application and its scenario state. Every event is handed to the current
// state; every move becomes one action record for the action manager. Listener thread only.
class OrvContext {
  public:
    OrvContext();
    ~OrvContext();
    OrvContext(const OrvContext&) = delete;
    OrvContext& operator=(const OrvContext&) = delete;

    void onLaunch(const char* name);
    void onStart(const char* name, int pid, int glTid);
    void onDisplayed(const char* pname, int pid);
    void onListScroll(const char* pname, int pid);
    void onListFling(const char* pname, int pid);
    void onListIdle(const char* pname, int pid);
    void onTransit(int fromPid, const char* fromName, int toPid, const char* toName, int toGlTid);
    void onRotateStart();
    void onRotateStop();
    void onScaleStart(const char* pname, int pid);
    void onScaleEnd(const char* pname, int pid);
    void onAttachGLThread(const char* pname, int pid, int tid);
    void onScreenOff();
    void onScreenOn();
    void onGestureDown(const char* pname, int pid);
    void onGesturePress(const char* pname, int pid);
    void onGestureTap(const char* pname, int pid);
    void onGestureScroll(const char* pname, int pid);
    void onGestureFling(const char* pname, int pid);
    void onGestureLongPress(const char* pname, int pid);
    void onTimeout();

    // A move within the tracked application.
    void changeState(OrvState* next);
    // A move that also sets the tracked application; an app the policy lacks ends in reset.
    void changeState(OrvState* next, const char* name, int pid, int tid);
    void dumpState(std::string& out);

    OrvState* mState;
    bool mIsScreenOn;
    int mTimeout;  // ms; 0 when the state has none
    int mPid;
    int mGLTid;
    std::string mAppName;
    OrvActionManager* mActionManager;

  private:
    void setTimeout(OrvState* state);
    bool hasEndTimer();
    int endTimeout(OrvState* state);
    void armEndTimer(bool hadEndTimer);
    void logAfter();
    // The entry points that only differ in their event's name and the state operation called.
    void onAppEvent(const char* op, bool (OrvState::*handler)(OrvContext*, const char*, int),
                    const char* pname, int pid);
    // `call` is the tail of the "before" line, spacing included.
    void onBareEvent(bool withScreen, const char* call, bool (OrvState::*handler)(OrvContext*));
};
