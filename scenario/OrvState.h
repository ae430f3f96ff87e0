#pragma once

class OrvContext;

// A scenario state: a stateless singleton that decides, per event, whether the context stays,
// updates its fields or moves. The defaults here serve every state that does not override.
class OrvState {
  public:
    virtual bool onReset(OrvContext* ctx);
    virtual bool onLaunch(OrvContext* ctx, const char* name);
    virtual bool onStart(OrvContext* ctx, const char* name, int pid, int glTid);
    virtual bool onDisplayed(OrvContext* ctx, const char* pname, int pid);
    virtual bool onScaleStart(OrvContext* ctx, const char* pname, int pid);
    virtual bool onScaleEnd(OrvContext* ctx, const char* pname, int pid);
    virtual bool onListScroll(OrvContext* ctx, const char* pname, int pid);
    virtual bool onListFling(OrvContext* ctx, const char* pname, int pid);
    virtual bool onListIdle(OrvContext* ctx, const char* pname, int pid);
    virtual bool onTransit(OrvContext* ctx, int fromPid, const char* fromName, int toPid,
                           const char* toName, int toGlTid);
    virtual bool onRotateStart(OrvContext* ctx);
    virtual bool onRotateStop(OrvContext* ctx);
    virtual bool onAttachGLThread(OrvContext* ctx, const char* pname, int pid, int tid);
    virtual bool onProcStart(OrvContext* ctx, const char* pname, int pid);
    virtual bool onScreenOff(OrvContext* ctx);
    virtual bool onScreenOn(OrvContext* ctx);
    virtual bool onGestureDown(OrvContext* ctx, const char* pname, int pid);
    virtual bool onGesturePress(OrvContext* ctx, const char* pname, int pid);
    virtual bool onGestureTap(OrvContext* ctx, const char* pname, int pid);
    virtual bool onGestureScroll(OrvContext* ctx, const char* pname, int pid);
    virtual bool onGestureFling(OrvContext* ctx, const char* pname, int pid);
    virtual bool onGestureLongPress(OrvContext* ctx, const char* pname, int pid);
    virtual bool onTimeout(OrvContext* ctx);
    virtual const char* getStateNameStr() = 0;
    virtual bool isTimeout();

  protected:
    OrvState() = default;
    virtual ~OrvState() = default;
    OrvState(const OrvState&) = delete;
    OrvState& operator=(const OrvState&) = delete;

    // The building blocks shared by the states' transition cells. `op` names the event in the
    // warning lines ("unexpected <op> event ...").
    static bool isSameApp(OrvContext* ctx, const char* name);
    static void updatePid(OrvContext* ctx, int pid);
    // Back to reset with the screen flag forced on.
    static bool forceReset(OrvContext* ctx);
    static bool resetWith(OrvContext* ctx, const char* op);
    static bool ignore(const char* op);
    // Same app: pid updated and the event ignored; another app: reset.
    static bool ignoreOrReset(OrvContext* ctx, const char* pname, int pid, const char* op);
    // Same app: pid updated, then a state change within the app; another app: reset.
    static bool moveOrReset(OrvContext* ctx, const char* pname, int pid, OrvState* next);
    // Same app: ids taken; another app: reset, with a warning only when `op` is given.
    static bool attachOrReset(OrvContext* ctx, const char* pname, int pid, int tid, const char* op);
    // onStart of a tracked app: the same app only refreshes its ids, another one is started.
    static bool refreshOrStart(OrvContext* ctx, const char* name, int pid, int glTid);
    // onTransit of a tracked app: the same app only refreshes its ids.
    static bool isTransitToSelf(OrvContext* ctx, const char* toName, int toPid, int toGlTid);
    static void cancelTimer();
    static void armTimer(OrvContext* ctx);
};
