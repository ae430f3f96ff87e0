#pragma once
#include "protocol/include/orv/protocol.h"
#include "scenario/OrvState.h"

// No application tracked; only launch, start and transit (with the screen on) leave it.
class OrvReset : public OrvState {
  public:
    static OrvReset* getInstance();

    bool onLaunch(OrvContext* ctx, const char* name) override;
    bool onStart(OrvContext* ctx, const char* name, int pid, int glTid) override;
    bool onTransit(OrvContext* ctx, int fromPid, const char* fromName, int toPid,
                   const char* toName, int toGlTid) override;
    bool onScreenOff(OrvContext* ctx) override;
    bool onScreenOn(OrvContext* ctx) override;
    const char* getStateNameStr() override { return orv::state::kReset; }

    // Nothing is tracked, so events about an application are dropped without a word.
    bool onReset(OrvContext*) override { return false; }
    bool onDisplayed(OrvContext*, const char*, int) override { return false; }
    bool onScaleStart(OrvContext*, const char*, int) override { return false; }
    bool onScaleEnd(OrvContext*, const char*, int) override { return false; }
    bool onListScroll(OrvContext*, const char*, int) override { return false; }
    bool onListFling(OrvContext*, const char*, int) override { return false; }
    bool onListIdle(OrvContext*, const char*, int) override { return false; }
    bool onRotateStart(OrvContext*) override { return false; }
    bool onRotateStop(OrvContext*) override { return false; }
    bool onAttachGLThread(OrvContext*, const char*, int, int) override { return false; }
    bool onGestureDown(OrvContext*, const char*, int) override { return false; }
    bool onGesturePress(OrvContext*, const char*, int) override { return false; }
    bool onGestureTap(OrvContext*, const char*, int) override { return false; }
    bool onGestureScroll(OrvContext*, const char*, int) override { return false; }
    bool onGestureFling(OrvContext*, const char*, int) override { return false; }
    bool onGestureLongPress(OrvContext*, const char*, int) override { return false; }

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
    const char* getStateNameStr() override { return orv::state::kLaunch; }

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
    const char* getStateNameStr() override { return orv::state::kStart; }

  private:
    OrvStart() = default;
};
