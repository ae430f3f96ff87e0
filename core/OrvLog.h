#pragma once
#include <log/log.h>

extern const char* PROP_LOG_ENABLE;  // "sys.orv.debug.daemon"

bool OrvLogIsEnabled();
// Re-reads the debug switch; logs only when it changes.
void OrvLogUpdateToggle();

// Debug lines are formatted only while the switch is on. Define LOG_TAG before including.
#define ORV_LOGD(...)            \
    do {                         \
        if (OrvLogIsEnabled()) { \
            ALOGD(__VA_ARGS__);  \
        }                        \
    } while (0)
