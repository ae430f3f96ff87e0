#define LOG_TAG "OrvLog"

#include "core/OrvLog.h"

#include <cutils/properties.h>
#include <string.h>

#include <atomic>

const char* PROP_LOG_ENABLE = "sys.orv.debug.daemon";

// Read by every thread without a lock; a stale read only adds or drops a debug line.
static std::atomic<bool> isEnabled{false};

bool OrvLogIsEnabled() {
    return isEnabled.load(std::memory_order_relaxed);
}

void OrvLogUpdateToggle() {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(PROP_LOG_ENABLE, value, "0");
    bool on = strcmp(value, "0") != 0 && strcmp(value, "false") != 0;
    if (on == OrvLogIsEnabled()) {
        return;
    }
    if (on) {
        ALOGI("OrvLog toggle On");
    } else {
        ALOGI("OrvLog toggle Off");
    }
    isEnabled.store(on, std::memory_order_relaxed);
}
