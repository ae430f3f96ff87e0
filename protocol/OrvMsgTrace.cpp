#define ATRACE_TAG ATRACE_TAG_POWER
#include "protocol/OrvMsgTrace.h"

#include <cutils/trace.h>
#include <stdio.h>

#include <string>

#include "protocol/include/orv/protocol.h"

const char* OrvMsgTrace::codeName(int code, char* buffer, int size) {
    if (const char* name = orv::codeName(code)) return name;
    snprintf(buffer, size, "CODE_%d", code);
    return buffer;
}

OrvMsgTrace::OrvMsgTrace(int code, const char* payload) : mOpen(ATRACE_ENABLED() != 0) {
    if (!mOpen) return;
    char buffer[32];
    std::string name = std::string("orvd:") + codeName(code, buffer, sizeof(buffer));
    if (payload && *payload) name += std::string(" ") + payload;
    ATRACE_BEGIN(name.c_str());
}

OrvMsgTrace::~OrvMsgTrace() {
    if (mOpen) ATRACE_END();
}
