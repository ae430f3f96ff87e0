#define ATRACE_TAG ATRACE_TAG_POWER
#include "protocol/OrvMsgTrace.h"

#include <cutils/trace.h>
#include <stdio.h>

#include <string>

const char* OrvMsgTrace::codeName(int code, char* buffer, int size) {
    static const struct {
        int code;
        const char* name;
    } kNames[] = {
        {1, "PROCESS_START"},
        {2, "PROCESS_DIE"},
        {3, "ACTIVITY_START"},
        {4, "ACTIVITY_DISPLAYED"},
        {5, "ACTIVITY_TRANSITION"},
        {21, "ROTATE_START"},
        {22, "ROTATE_ANIMATION_START"},
        {23, "ROTATE_ANIMATION_END"},
        {33, "LIST_VIEW"},
        {34, "VIEW_GESTURE"},
        {35, "SCALE"},
        {41, "GLTHREAD_ATTACH"},
        {42, "GLTHREAD_DETTACH"},
        {101, "DALVIK_LARGE_HEAP"},
        {102, "DALVIK_HEAP_UTILIZATION"},
        {103, "HARDWARE_ACCELERATION"},
        {104, "DISABLE_THERMAL"},
        {301, "CONFIGURATION_UPDATE"},
        {302, "GOING_TO_SLEEP"},
        {303, "WAKING_UP"},
        {400, "CONFIGURATION_QUERY"},
        {500, "TIMEOUT"},
        {900, "DUMP_STATE"},
    };
    for (const auto& n : kNames)
        if (n.code == code) return n.name;
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
