#define LOG_TAG "OrvTimeoutWork"

#include "core/OrvTimeoutWork.h"

#include <cutils/sockets.h>
#include <sys/socket.h>
#include <unistd.h>

#include "core/OrvLog.h"
#include "protocol/include/orv/protocol.h"

namespace {
const std::string kTimeoutMsg = orv::frame(orv::TIMEOUT);
}

OrvTimeoutWork::OrvTimeoutWork() : OrvWork("TIMEOUT", false), mSocket(-1) {}

OrvTimeoutWork::~OrvTimeoutWork() {
    if (mSocket >= 0) {
        close(mSocket);
    }
}

void OrvTimeoutWork::execute() {
    if (mSocket < 0) {
        ORV_LOGD("creating socket...");
        // Non-blocking: the timer holds its lock while this runs, and a listener that is busy
        // (behind a slow action, its backlog full) must make the time-out fail, not wait.
        mSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (mSocket < 0) {
            ALOGE("socket create fail (ret=%d)\n", mSocket);
            return;
        }
        ORV_LOGD("done\nconnecting socket...");
        int ret = socket_local_client_connect(mSocket, orv::kSocketName,
                                              ANDROID_SOCKET_NAMESPACE_RESERVED, SOCK_STREAM);
        if (ret < 0) {
            ALOGE("socket connect fail (ret=%d)\n", ret);
            close(mSocket);
            mSocket = -1;
            return;
        }
    }
    // The daemon ignores SIGPIPE, so a vanished peer shows up here as a failed send.
    // A frame cut short would garble the stream: a short send counts as a failure, and closing
    // the connection lets the listener drop the part it got.
    ssize_t ret = send(mSocket, kTimeoutMsg.data(), kTimeoutMsg.size(), 0);
    if (ret != static_cast<ssize_t>(kTimeoutMsg.size())) {
        ALOGE("TimeoutMsg send failed (ret=%d) (fd=%d)\n", static_cast<int>(ret), mSocket);
        close(mSocket);
        mSocket = -1;
        return;
    }
    ORV_LOGD("TimeoutMsg sent (fd=%d)", mSocket);
}
