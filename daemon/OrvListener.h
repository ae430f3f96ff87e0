#pragma once
#include <sysutils/SocketListener.h>

class OrvMsgHandler;

// The control socket "orvd": every read goes to the message handler's framing.
class OrvListener : public SocketListener {
  public:
    OrvListener();
    ~OrvListener() override;

    void setMsgHandler(OrvMsgHandler* handler) { mMsgHandler = handler; }

  protected:
    bool onDataAvailable(SocketClient* client) override;

  private:
    OrvMsgHandler* mMsgHandler;
};
