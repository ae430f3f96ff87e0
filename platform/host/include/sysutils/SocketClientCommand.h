#pragma once
#include <sysutils/SocketClient.h>

// What SocketListener::runOnEachSocket runs for every client.
class SocketClientCommand {
  public:
    virtual ~SocketClientCommand() {}
    virtual void runSocketCommand(SocketClient* client) = 0;
};
