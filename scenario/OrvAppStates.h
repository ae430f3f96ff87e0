#pragma once
#include "scenario/OrvState.h"

// No application tracked; only launch, start and transit (with the screen on) leave it.
class OrvReset : public OrvState {
  public:
    static OrvReset* getInstance();

    bool onReset(OrvContext* ctx) override;
    bool onLaunch(OrvContext* ctx, const char* name) override;
    bool onStart(OrvContext* ctx, const char* name, int pid, int glTid) override;
    bool onDisplayed(OrvContext* ctx, const char* pname, int pid) override;
    bool onScaleStart(OrvContext* ctx, const char* pname, int pid) override;
    bool onScaleEnd(OrvContext* ctx, const char* pname, int pid) override;
    bool onListScroll(OrvContext* ctx, const char* pname, int pid) override;
    bool onListFling(OrvContext* ctx, const char* pname, int pid) override;
    bool onListIdle(OrvContext* ctx, const char* pname, int pid) override;
    bool onTransit(OrvContext* ctx, int fromPid, const char* fromName, int toPid,
                   const char* toName, int toGlTid) override;
    bool onRotateStart(OrvContext* ctx) override;
    bool onRotateStop(OrvContext* ctx) override;
    bool onAttachGLThread(OrvContext* ctx, const char* pname, int pid, int tid) override;
    bool onScreenOff(OrvContext* ctx) override;
    bool onScreenOn(OrvContext* ctx) override;
    bool onGestureDown(OrvContext* ctx, const char* pname, int pid) override;
    bool onGesturePress(OrvContext* ctx, const char* pname, int pid) override;
    bool onGestureTap(OrvContext* ctx, const char* pname, int pid) override;
    bool onGestureScroll(OrvContext* ctx, const char* pname, int pid) override;
    bool onGestureFling(OrvContext* ctx, const char* pname, int pid) override;
    bool onGestureLongPress(OrvContext* ctx, const char* pname, int pid) override;
    const char* getStateNameStr() override { return "reset"; }

  private:
    OrvReset() = default;
};

class OrvLaunch : public OrvState {
  public:
    static OrvLaunch* getInstance();

    bool onStart(OrvContext* ctx, const char* name, int pid, int glTid) override;
    bool onDisplayed(OrvContext* ctx, const char* pname, int pid) override;
    bool onTransit(OrvContext* ctx, int fromPid, const char* fromName, int toPid,
                   const char* toName, int toGlTid) override;
    bool onAttachGLThread(OrvContext* ctx, const char* pname, int pid, int tid) override;
    const char* getStateNameStr() override { return "launch"; }

  private:
    OrvLaunch() = default;
};

class OrvStart : public OrvState {
  public:
    static OrvStart* getInstance();

    bool onStart(OrvContext* ctx, const char* name, int pid, int glTid) override;
    bool onDisplayed(OrvContext* ctx, const char* pname, int pid) override;
    bool onTransit(OrvContext* ctx, int fromPid, const char* fromName, int toPid,
                   const char* toName, int toGlTid) override;
    bool onAttachGLThread(OrvContext* ctx, const char* pname, int pid, int tid) override;
    const char* getStateNameStr() override { return "start"; }

  private:
    OrvStart() = default;
};
