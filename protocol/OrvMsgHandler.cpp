#define LOG_TAG "OrvMsgHandler"
#include "protocol/OrvMsgHandler.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include "daemon/core/OrvLog.h"

OrvMsgHandler::OrvMsgHandler() : mContext(nullptr), mActionManager(nullptr) {
    ORV_LOGD("constructor called");
}

OrvMsgHandler::~OrvMsgHandler() {
    ORV_LOGD("destructor called");
}

// One buffer for the whole process: a partial frame left by one client is completed (or spoiled)
// by whatever arrives next, from any client. Built before the daemon object so that it is
// destroyed after it, once the daemon has stopped the listener thread that writes to it.
static std::string msgBuf;

// A header that never completes keeps every later byte of every client; past this the buffer is
// dropped like a broken message instead of growing until memory runs out.
static const size_t kMsgBufMax = 1u << 20;

void OrvMsgHandler::consume(const char* data, int len, SocketClient* client) {
    if (!msgBuf.empty()) {
        ALOGW("msgBuf is not empty");
    }
    if (len > 0 && msgBuf.size() + static_cast<size_t>(len) > kMsgBufMax) {
        ALOGE("msg parser error: msgBuf would pass %zu bytes", kMsgBufMax);
        ALOGE("msg parser error: clear msg");
        msgBuf.clear();
        if (static_cast<size_t>(len) > kMsgBufMax) return;
    }
    if (len > 0) {
        msgBuf.append(data, len);
    }
    ORV_LOGD("consume(msg=%s), msgBuf=%s", data, msgBuf.c_str());

    while (!msgBuf.empty()) {
        size_t open = msgBuf.find('[');
        if (open == std::string::npos) {
            ALOGE("msg parser error: missing '[', broken msg(%s)", msgBuf.c_str());
            ALOGE("msg parser error: clear msg");
            msgBuf.clear();
            return;
        }
        if (open > 0) {
            ALOGE("msg parser error: missing '[', broken msg(%s)", msgBuf.c_str());
            ALOGE("msg parser error: fixed by skip to first head");
            // Only the "[" survives; what followed it is dropped too.
            msgBuf = msgBuf.substr(open, 1);
            continue;
        }
        size_t comma = msgBuf.find(',');
        if (comma == std::string::npos) {
            ALOGE("msg parser error: missing ',', broken msg(%s)", msgBuf.c_str());
            ALOGE("msg parser error: wait next msg");
            return;
        }
        int code = atoi(msgBuf.substr(1, comma - 1).c_str());
        size_t close = msgBuf.find(']', comma);
        if (close == std::string::npos) {
            ALOGE("msg parser error: missing ']', broken msg(%s)", msgBuf.c_str());
            ALOGE("msg parser error: wait next msg");
            return;
        }
        int payloadLen = atoi(msgBuf.c_str() + comma + 1);
        std::string remain = msgBuf.substr(close + 1);
        ORV_LOGD("msgBuf=%s", msgBuf.c_str());
        ORV_LOGD("matchCnt=%d, code=%d, payload_len=%d, remainStr=%s", 3, code, payloadLen,
                 remain.c_str());
        if (payloadLen == -1 || code < 1) {
            ALOGE("msg parser error: invalid header, msg(%s)", msgBuf.c_str());
            ALOGE("msg parser error: clear msg");
            msgBuf.clear();
            return;
        }
        // Taken unsigned, so any other negative length waits for ever.
        uint32_t want = static_cast<uint32_t>(payloadLen);
        if (want == remain.size()) {
            consumeMsg(code, remain.c_str(), client);
            msgBuf.clear();
            return;
        }
        if (want > remain.size()) {
            ALOGW("msg parser error: payload length is not enough");
            ALOGW("msg parser error: wait next msg");
            return;
        }
        std::string payload = remain.substr(0, want);
        consumeMsg(code, payload.c_str(), client);
        msgBuf = remain.substr(want);
    }
}

const char* OrvMsgHandler::getPNameByPid(int pid) {
    auto it = mPidNameMap.find(pid);
    return it == mPidNameMap.end() ? "" : it->second.c_str();
}

// try_emplace: a pid already known costs no node built and thrown away.
void OrvMsgHandler::addPidPNamePair(int pid, const char* pname) {
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
