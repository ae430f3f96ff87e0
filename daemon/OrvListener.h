#pragma once
#include <sysutils/SocketListener.h>

#include <unordered_set>

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
    // Bounds every reply to a client, once, the first time the client is seen.
    void admit(SocketClient* client);
    // The client is about to be released by the platform.
    bool drop(SocketClient* client);

    OrvMsgHandler* mMsgHandler;
    std::unordered_set<const SocketClient*> mClients;
};
