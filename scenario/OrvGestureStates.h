#pragma once
#include "protocol/include/orv/protocol.h"
#include "scenario/OrvRunStates.h"

// A short-lived touch gesture: the timer brings it back to run unless the same gesture repeats
// or another one takes over (the latter through OrvRun's gesture operations).
class OrvGestureBase : public OrvRun {
  public:
    bool onLaunch(OrvContext* ctx, const char* name) override;
    bool onStart(OrvContext* ctx, const char* name, int pid, int glTid) override;
    bool onDisplayed(OrvContext* ctx, const char* pname, int pid) override;
    bool onScaleStart(OrvContext* ctx, const char* pname, int pid) override;
    bool onListScroll(OrvContext* ctx, const char* pname, int pid) override;
    bool onListFling(OrvContext* ctx, const char* pname, int pid) override;
    bool onTransit(OrvContext* ctx, int fromPid, const char* fromName, int toPid,
                   const char* toName, int toGlTid) override;
    bool onRotateStart(OrvContext* ctx) override;
    bool onTimeout(OrvContext* ctx) override;
    bool isTimeout() override { return true; }

  protected:
    OrvGestureBase() = default;
    // The state's own gesture again: keep the state and restart its period.
    static bool repeat(OrvContext* ctx, const char* pname, int pid);
};

class OrvGestureDown : public OrvGestureBase {
  public:
    static OrvGestureDown* getInstance();
    bool onGestureDown(OrvContext* ctx, const char* pname, int pid) override;
    const char* getStateNameStr() override { return orv::state::kGestureDown; }

  private:
    OrvGestureDown() = default;
};

class OrvGesturePress : public OrvGestureBase {
  public:
    static OrvGesturePress* getInstance();
    bool onGesturePress(OrvContext* ctx, const char* pname, int pid) override;
    const char* getStateNameStr() override { return orv::state::kGesturePress; }

  private:
    OrvGesturePress() = default;
};

class OrvGestureTap : public OrvGestureBase {
  public:
    static OrvGestureTap* getInstance();
    bool onGestureTap(OrvContext* ctx, const char* pname, int pid) override;
    const char* getStateNameStr() override { return orv::state::kGestureTap; }

  private:
    OrvGestureTap() = default;
};

class OrvGestureScroll : public OrvGestureBase {
  public:
    static OrvGestureScroll* getInstance();
    bool onGestureScroll(OrvContext* ctx, const char* pname, int pid) override;
    const char* getStateNameStr() override { return orv::state::kGestureScroll; }

  private:
    OrvGestureScroll() = default;
};

class OrvGestureFling : public OrvGestureBase {
  public:
    static OrvGestureFling* getInstance();
    bool onGestureFling(OrvContext* ctx, const char* pname, int pid) override;
    const char* getStateNameStr() override { return orv::state::kGestureFling; }

  private:
    OrvGestureFling() = default;
};

class OrvGestureLongPress : public OrvGestureBase {
  public:
    static OrvGestureLongPress* getInstance();
    bool onGestureLongPress(OrvContext* ctx, const char* pname, int pid) override;
    const char* getStateNameStr() override { return orv::state::kGestureLongPress; }

  private:
    OrvGestureLongPress() = default;
};
