// Framing and dispatch under arbitrary bytes: every input is a series of arrivals (split at 0xff,
// each cut to one read of at most 511 bytes) fed to one handler bound to a real context and a
// real action manager, exactly as the listener does. The reassembly buffer is process-wide; a
// frame left incomplete by one input (a never-completing header stalls it for good) is cleared
// after each input through the buffer's own cap, so every input starts from an empty buffer.
#include <cutils/properties.h>
#include <orvhost/host.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sysutils/SocketClient.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "core/OrvLog.h"
#include "policy/OrvActionManager.h"
#include "protocol/OrvMsgHandler.h"
#include "scenario/OrvContext.h"

namespace {

const char kPolicy[] = R"({ "parser": "v1.0", "version": "v1.0",
  "default": { "action": { "reset": { "policy": [] } } },
  "applications": {
    "com.a": { "param": { "event_mask": "101", "thermal_mask": "10", "large_heap": "true",
                          "gesture_tap_timeout": "7000" } },
    "com.b": { "param": { "event_mask": "1x" } } } })";

struct Harness {
    OrvActionManager* manager = nullptr;
    OrvContext* context = nullptr;
    OrvMsgHandler* handler = nullptr;
    SocketClient* client = nullptr;
    int peer = -1;
};

Harness gH;

// Records are formatted (debug lines included) but kept off stderr.
void dropLog(int, const char*, const char*, void*) {}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    char dir[] = "/tmp/orvfuzz.XXXXXX";
    if (!mkdtemp(dir)) abort();
    setenv("ORV_ROOT", dir, 1);
    std::string data = std::string(dir) + "/data";
    mkdir(data.c_str(), 0755);
    std::ofstream(data + "/orvpolicy") << kPolicy;

    orvhost_set_log_hook(dropLog, nullptr, false);
    property_set(PROP_LOG_ENABLE, "1");
    OrvLogUpdateToggle();

    gH.manager = new OrvActionManager();
    if (!gH.manager->init()) abort();
    gH.context = new OrvContext();
    gH.context->mActionManager = gH.manager;
    gH.handler = new OrvMsgHandler();
    gH.handler->setContext(gH.context);
    gH.handler->setActionManager(gH.manager);

    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) abort();
    gH.client = new SocketClient(fds[0], true);
    gH.peer = fds[1];
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    size_t at = 0;
    while (at <= size) {
        size_t end = at;
        while (end < size && data[end] != 0xff) ++end;
        size_t len = end - at;
        if (len > 511) len = 511;
        if (len > 0) {
            char buffer[512] = {0};
            memcpy(buffer, data + at, len);
            gH.handler->consume(buffer, static_cast<int>(len), gH.client);
        }
        at = end + 1;
    }
    // One arrival over the cap clears the buffer and is itself dropped.
    static char overCap[(1 << 20) + 1];
    gH.handler->consume(overCap, sizeof(overCap), gH.client);
    // Drain the replies so the socket never fills up.
    char sink[4096];
    while (recv(gH.peer, sink, sizeof(sink), MSG_DONTWAIT) > 0) {
    }
    return 0;
}
