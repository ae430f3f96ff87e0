#pragma once
#include "core/OrvWork.h"

// Sends the TIMEOUT frame "[500,0]" to the daemon's own control socket, so that time-outs reach
// the state machine on the listener thread like any other event.
class OrvTimeoutWork : public OrvWork {
  public:
    OrvTimeoutWork();
    void execute() override;
    ~OrvTimeoutWork() override;

  private:
    int mSocket;  // kept open between time-outs; -1 while not connected
};
