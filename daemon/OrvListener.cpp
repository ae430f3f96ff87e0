#define LOG_TAG "OrvListener"
#include "daemon/OrvListener.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "core/OrvLog.h"
#include "core/OrvStopWatch.h"
#include "protocol/OrvMsgHandler.h"
#include "protocol/include/orv/protocol.h"

OrvListener::OrvListener() : SocketListener(orv::kSocketName, true), mMsgHandler(nullptr) {
    ORV_LOGD("constructor called");
}

OrvListener::~OrvListener() {
    ORV_LOGD("destructor called");
}

// The platform writes a reply on the listener thread until all of it is taken: a client that
// reads nothing would hold every other client, every event and the stop. Past this a reply is
// given up and the client dropped; a client that reads its replies never comes near it.
static const int kReplyTimeoutMs = 20;

void OrvListener::admit(SocketClient* client) {
    if (!mClients.insert(client).second) return;
    timeval tv = {0, kReplyTimeoutMs * 1000};
    if (setsockopt(client->getSocket(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv)) != 0)
        ALOGW("client(fd=%d): no reply time-out (%s)", client->getSocket(), strerror(errno));
}

bool OrvListener::drop(SocketClient* client) {
    mClients.erase(client);
    if (mMsgHandler) mMsgHandler->forget(client);
    return false;
}

bool OrvListener::onDataAvailable(SocketClient* client) {
    gWatch.start(">=========================");
    OrvLogUpdateToggle();
    admit(client);

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
        return drop(client);
    }
    if (count == 0) {
        ORV_LOGD("client(fd=%d) msg(0):", fd);
        return drop(client);
    }
    if (count == static_cast<ssize_t>(sizeof(buffer) - 1)) {
        ALOGW("buffer may be too small. message may be cut this time.");
    }
    ORV_LOGD("client(fd=%d) msg(%d):%s", fd, static_cast<int>(count), buffer);
    if (!mMsgHandler) return true;
    if (!mMsgHandler->consume(buffer, static_cast<int>(count), client)) return drop(client);
    return true;
}
