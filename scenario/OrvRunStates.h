#pragma once
#include "protocol/include/orv/protocol.h"
#include "scenario/OrvState.h"

// What every state of a running application shares: a launch or a start of another app leaves
// for launch or start, a transit moves straight to the new app, the screen may turn.
class OrvRunBase : public OrvState {
  public:
    bool onLaunch(OrvContext* ctx, const char* name) override;
    bool onStart(OrvContext* ctx, const char* name, int pid, int glTid) override;
    bool onDisplayed(OrvContext* ctx, const char* pname, int pid) override;
    bool onTransit(OrvContext* ctx, int fromPid, const char* fromName, int toPid,
                   const char* toName, int toGlTid) override;
    bool onRotateStart(OrvContext* ctx) override;

  protected:
    OrvRunBase() = default;
};

class OrvRun : public OrvRunBase {
  public:
    static OrvRun* getInstance();

    bool onScaleStart(OrvContext* ctx, const char* pname, int pid) override;
    bool onListScroll(OrvContext* ctx, const char* pname, int pid) override;
    bool onListFling(OrvContext* ctx, const char* pname, int pid) override;
    bool onGestureDown(OrvContext* ctx, const char* pname, int pid) override;
    bool onGesturePress(OrvContext* ctx, const char* pname, int pid) override;
    bool onGestureTap(OrvContext* ctx, const char* pname, int pid) override;
    bool onGestureScroll(OrvContext* ctx, const char* pname, int pid) override;
    bool onGestureFling(OrvContext* ctx, const char* pname, int pid) override;
    bool onGestureLongPress(OrvContext* ctx, const char* pname, int pid) override;
    const char* getStateNameStr() override { return orv::state::kRun; }

  protected:
    OrvRun() = default;

  private:
    bool toGesture(OrvContext* ctx, const char* pname, int pid, OrvState* next);
};

class OrvScale : public OrvRunBase {
  public:
    static OrvScale* getInstance();

    bool onScaleEnd(OrvContext* ctx, const char* pname, int pid) override;
    bool onListScroll(OrvContext* ctx, const char* pname, int pid) override;
    bool onListFling(OrvContext* ctx, const char* pname, int pid) override;
    const char* getStateNameStr() override { return orv::state::kScale; }

  private:
    OrvScale() = default;
};

class OrvListviewScroll : public OrvRunBase {
  public:
    static OrvListviewScroll* getInstance();

    bool onListFling(OrvContext* ctx, const char* pname, int pid) override;
    bool onListIdle(OrvContext* ctx, const char* pname, int pid) override;
    // Touch gestures are part of moving a list: dropped without a word.
    bool onGestureDown(OrvContext*, const char*, int) override { return false; }
    bool onGestureScroll(OrvContext*, const char*, int) override { return false; }
    bool onGestureFling(OrvContext*, const char*, int) override { return false; }
    const char* getStateNameStr() override { return orv::state::kListViewScroll; }

  private:
    OrvListviewScroll() = default;
};

class OrvListviewFling : public OrvRunBase {
  public:
    static OrvListviewFling* getInstance();

    bool onListIdle(OrvContext* ctx, const char* pname, int pid) override;
    bool onGestureDown(OrvContext*, const char*, int) override { return false; }
    bool onGestureScroll(OrvContext*, const char*, int) override { return false; }
    bool onGestureFling(OrvContext*, const char*, int) override { return false; }
    const char* getStateNameStr() override { return orv::state::kListViewFling; }

  private:
    OrvListviewFling() = default;
};

class OrvRotate : public OrvRunBase {
  public:
    static OrvRotate* getInstance();

    bool onListIdle(OrvContext* ctx, const char* pname, int pid) override;
    // Already turning: the base class's warning, not another change.
    bool onRotateStart(OrvContext* ctx) override { return OrvState::onRotateStart(ctx); }
    bool onRotateStop(OrvContext* ctx) override;
    const char* getStateNameStr() override { return orv::state::kRotate; }

  private:
    OrvRotate() = default;
};
