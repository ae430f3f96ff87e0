#pragma once
#include "policy/OrvActionManager.h"

struct OrvStopWait;

// Runs the policy's "on_stop" set on the action queue, behind whatever is queued, as the daemon
// stops; the caller waits a bounded time for it.
class OrvStopAction : public OrvActionManager::OrvAction {
  public:
    // False at once when the policy in force has no "on_stop"; otherwise true once it ran, or
    // false when it did not end within `timeoutMs`.
    static bool run(OrvActionManager* manager, int timeoutMs);

    void execute() override;
    ~OrvStopAction() override;

  private:
    explicit OrvStopAction(OrvStopWait* wait);
    OrvStopWait* mWait;
};
