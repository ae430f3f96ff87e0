#define LOG_TAG "OrvListener"
#include "daemon/OrvListener.h"

#include <errno.h>
#include <orv/protocol.h>
#include <string.h>
#include <unistd.h>

#include "daemon/core/OrvLog.h"
#include "daemon/core/OrvStopWatch.h"
#include "protocol/OrvMsgHandler.h"

OrvListener::OrvListener() : SocketListener(orv::kSocketName, true), mMsgHandler(nullptr) {
    ORV_LOGD("constructor called");
}

OrvListener::~OrvListener() {
    ORV_LOGD("destructor called");
}

bool OrvListener::onDataAvailable(SocketClient* client) {
    gWatch.start(">=========================");
    OrvLogUpdateToggle();

    // One byte short of the buffer so the data always ends in a NUL.
    char buffer[orv::kReadMax + 1];
    memset(buffer, 0, sizeof(buffer));
    int fd = client->getSocket();
    ssize_t count;
    do {
        count = read(fd, buffer, sizeof(buffer) - 1);
    } while (count < 0 && errno == EINTR);
    if (count < 0) {
        ALOGE("read() failed (%s)", strerror(errno));
        return false;
    }
    if (count == 0) {
        ORV_LOGD("client(fd=%d) msg(0):", fd);
        return false;
    }
    if (count == static_cast<ssize_t>(sizeof(buffer) - 1)) {
        ALOGW("buffer may be too small. message may be cut this time.");
    }
    ORV_LOGD("client(fd=%d) msg(%d):%s", fd, static_cast<int>(count), buffer);
    if (!mMsgHandler) return true;
    mMsgHandler->consume(buffer, static_cast<int>(count), client);
    return true;
}
