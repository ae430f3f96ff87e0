#define LOG_TAG "OrvMsgHandler"
#include "protocol/OrvMsgHandler.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sysutils/SocketClient.h>

#include "core/OrvLog.h"
#include "protocol/OrvAtoi.h"

OrvMsgHandler::OrvMsgHandler()
    : mContext(nullptr),
      mActionManager(nullptr),
      mDumper(nullptr),
      mDumperOwner(nullptr),
      mReplyFailed(false) {
    ORV_LOGD("constructor called");
}

OrvMsgHandler::~OrvMsgHandler() {
    ORV_LOGD("destructor called");
}

// A header that never completes keeps every later byte of its client; past this the buffer is
// dropped like a broken message instead of growing until memory runs out.
static const size_t kMsgBufMax = 1u << 20;

bool OrvMsgHandler::consume(const char* data, int len, SocketClient* client) {
    std::string& msgBuf = mFrames[client];
    if (!msgBuf.empty()) {
        ALOGW("msgBuf is not empty");
    }
    if (len > 0 && msgBuf.size() + static_cast<size_t>(len) > kMsgBufMax) {
        ALOGE("msg parser error: msgBuf would pass %zu bytes", kMsgBufMax);
        ALOGE("msg parser error: clear msg");
        msgBuf.clear();
        if (static_cast<size_t>(len) > kMsgBufMax) return true;
    }
    if (len > 0) {
        msgBuf.append(data, len);
    }
    ORV_LOGD("consume(msg=%s), msgBuf=%s", data, msgBuf.c_str());
    mReplyFailed = false;
    size_t used = cutFrames(msgBuf, client);
    msgBuf.erase(0, used);
    return !mReplyFailed;
}

void OrvMsgHandler::forget(const SocketClient* client) {
    mFrames.erase(client);
}

void OrvMsgHandler::reply(SocketClient* client, int code, const char* text) {
    if (client->sendMsg(code, text, false, false) == 0) return;
    mReplyFailed = true;
    ALOGW("client(fd=%d) takes no replies: dropped", client->getSocket());
}

// Where `c` first is at or after `from`; npos when it is not. std::string::find without the call
// into the library, which costs more than the search over a frame's few bytes.
static size_t findFrom(const std::string& text, char c, size_t from) {
    const void* hit = memchr(text.data() + from, c, text.size() - from);
    return hit ? static_cast<size_t>(static_cast<const char*>(hit) - text.data())
               : std::string::npos;
}

// findFrom for a mark that is usually a few bytes on, as in a header: a loop over those beats the
// call, and memchr takes over past them.
static size_t findNear(const std::string& text, char c, size_t from) {
    const size_t near = text.size() - from < 16 ? text.size() : from + 16;
    for (size_t i = from; i < near; ++i) {
        if (text[i] == c) return i;
    }
    return findFrom(text, c, near);
}

// Frames are cut where they lie: `at` marks the start of what is left, and only a frame's end is
// NUL-terminated for the moment its handler runs. Returns how many leading bytes were used up.
size_t OrvMsgHandler::cutFrames(std::string& msgBuf, SocketClient* client) {
    size_t at = 0;
    while (at < msgBuf.size() && !mReplyFailed) {
        const char* rest = msgBuf.c_str() + at;
        size_t open = msgBuf[at] == '[' ? at : findFrom(msgBuf, '[', at);
        if (open == std::string::npos) {
            ALOGE("msg parser error: missing '[', broken msg(%s)", rest);
            ALOGE("msg parser error: clear msg");
            msgBuf.clear();
            return 0;
        }
        if (open > at) {
            ALOGE("msg parser error: missing '[', broken msg(%s)", rest);
            ALOGE("msg parser error: fixed by skip to first head");
            // Only the "[" survives; what followed it is dropped too.
            msgBuf.assign(1, '[');
            at = 0;
            continue;
        }
        size_t comma = findNear(msgBuf, ',', at);
        if (comma == std::string::npos) {
            ALOGE("msg parser error: missing ',', broken msg(%s)", rest);
            ALOGE("msg parser error: wait next msg");
            return at;
        }
        // Stops at the comma, as atoi would at the end of the code's own copy.
        int code = OrvAtoi(rest + 1);
        size_t close = findNear(msgBuf, ']', comma);
        if (close == std::string::npos) {
            ALOGE("msg parser error: missing ']', broken msg(%s)", rest);
            ALOGE("msg parser error: wait next msg");
            return at;
        }
        int payloadLen = OrvAtoi(msgBuf.c_str() + comma + 1);
        size_t body = close + 1;
        size_t remain = msgBuf.size() - body;
        ORV_LOGD("msgBuf=%s", rest);
        ORV_LOGD("matchCnt=%d, code=%d, payload_len=%d, remainStr=%s", 3, code, payloadLen,
                 msgBuf.c_str() + body);
        if (payloadLen == -1 || code < 1) {
            ALOGE("msg parser error: invalid header, msg(%s)", rest);
            ALOGE("msg parser error: clear msg");
            msgBuf.clear();
            return 0;
        }
        // Taken unsigned, so any other negative length waits for ever.
        uint32_t want = static_cast<uint32_t>(payloadLen);
        if (want == remain) {
            consumeMsg(code, msgBuf.c_str() + body, client);
            msgBuf.clear();
            return 0;
        }
        if (want > remain) {
            ALOGW("msg parser error: payload length is not enough");
            ALOGW("msg parser error: wait next msg");
            return at;
        }
        size_t end = body + want;
        char saved = msgBuf[end];
        msgBuf[end] = '\0';
        consumeMsg(code, msgBuf.c_str() + body, client);
        msgBuf[end] = saved;
        at = end;
    }
    return at;
}

const char* OrvMsgHandler::getPNameByPid(int pid) {
    auto it = mPidNameMap.find(pid);
    return it == mPidNameMap.end() ? "" : it->second.c_str();
}

// try_emplace: a pid already known costs no node built and thrown away.
void OrvMsgHandler::addPidPNamePair(int pid, std::string_view pname) {
    mPidNameMap.try_emplace(pid, pname);
}

void OrvMsgHandler::addIdPair(int pid, int tid) {
    mGLTidMap.try_emplace(pid, tid);
}

int OrvMsgHandler::glTidOf(int pid) {
    auto it = mGLTidMap.find(pid);
    return it == mGLTidMap.end() ? -1 : it->second;
}

bool OrvMsgHandler::binStr2UIntStr(std::string& bin, std::string& out) {
    uint32_t sum = 0;
    uint32_t bit = 0;
    for (auto it = bin.rbegin(); it != bin.rend(); ++it, ++bit) {
        if (*it == '1') {
            sum += 1u << (bit % 32);
        } else if (*it != '0') {
            return false;
        }
    }
    char text[16];
    snprintf(text, sizeof(text), "%d", static_cast<int32_t>(sum));
    out = text;
    return true;
}
