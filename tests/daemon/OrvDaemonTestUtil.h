#pragma once
// Shared by the daemon tests: a small policy and a real action manager whose executed actions can
// be awaited and read back.
#include <cutils/properties.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/OrvLog.h"
#include "policy/OrvActionManager.h"
#include "scenario/OrvContext.h"
#include "support/OrvTestSupport.h"

namespace orvtest {

// com.a and com.b are known; com.a's gesture time-outs cover every conversion rule.
inline std::string smallPolicy() {
    return R"({ "parser": "v1.0", "version": "v1.0",
  "default": { "action": { "reset": { "policy": [] } } },
  "applications": {
    "com.a": { "param": { "gesture_down_timeout": "250", "gesture_press_timeout": "0",
      "gesture_tap_timeout": "7000", "gesture_scroll_timeout": "abc", "event_mask": "101",
      "thermal_mask": "0110", "large_heap": "true", "heap_utilization": "0.75",
      "hardware_acceleration": "1" } },
    "com.b": { "param": { "event_mask": "1x1", "thermal_mask": "1" } } } })";
}

inline std::string frame(int code, const std::string& payload) {
    return "[" + std::to_string(code) + "," + std::to_string(payload.size()) + "]" + payload;
}

inline void setDebug(bool on) {
    property_set(PROP_LOG_ENABLE, on ? "1" : "0");
    OrvLogUpdateToggle();
}

// A fresh root with the small policy, debug logging on and a context wired to a real manager.
// The manager is never destroyed: its queue thread runs until the test process exits.
struct ScenarioEnv {
    TempRoot root;
    LogCapture log;
    OrvActionManager* manager = new OrvActionManager();
    OrvContext ctx;
    int syncs = 0;

    ScenarioEnv() {
        root.write("data/orvpolicy", smallPolicy());
        setDebug(true);
        EXPECT_TRUE(manager->init());
        ctx.mActionManager = manager;
    }
    // Returns once every action sent before has executed.
    bool sync() {
        std::string app = "sync#" + std::to_string(++syncs);
        (new OrvActionManager::OrvStateChangeAction("sync", "sync", app.c_str(), 0, 0))
            ->send(manager);
        return log.waitFor("STATE-CHANGE from[" + app + ", 0, 0, sync] to[" + app +
                           ", 0, 0, sync] event[]");
    }
    // Executed action records since the last clear, sync markers left out.
    std::vector<std::string> actions() const {
        std::vector<std::string> out;
        for (const auto& t : log.texts("OrvActionManager"))
            if (t.find("] to[") != std::string::npos && t.find("sync#") == std::string::npos)
                out.push_back(t);
        return out;
    }
};

}  // namespace orvtest
