#pragma once
// Shared by the daemon tests: a small policy, a real action manager bound to a context, and a
// way to know that every action sent so far has been executed.
#include <cutils/properties.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "daemon/OrvLog.h"
#include "policy/OrvActionManager.h"
#include "scenario/OrvContext.h"
#include "support/OrvTestSupport.h"

namespace orvtest {

// com.a and com.b are known; the gesture time-outs of com.a cover every conversion rule.
inline std::string smallPolicy() {
    return R"({
  "parser": "v1.0", "version": "v1.0",
  "default": { "action": { "reset": { "policy": [] } } },
  "applications": {
    "com.a": { "param": { "gesture_down_timeout": "250", "gesture_press_timeout": "0",
                          "gesture_tap_timeout": "7000", "gesture_scroll_timeout": "abc",
                          "event_mask": "101", "thermal_mask": "0110", "large_heap": "true",
                          "heap_utilization": "0.75", "hardware_acceleration": "1" } },
    "com.b": { "param": { "event_mask": "1x1", "thermal_mask": "1" } }
  }
})";
}

inline void setDebug(bool on) {
    property_set(PROP_LOG_ENABLE, on ? "1" : "0");
    OrvLogUpdateToggle();
}

// A fresh root with the small policy, debug logging on and a started action manager. The manager
// is never destroyed: its queue thread runs until the test process exits.
class ScenarioEnv {
  public:
    ScenarioEnv() {
        mRoot.write("data/orvpolicy", smallPolicy());
        setDebug(true);
        mManager = new OrvActionManager();
        mReady = mManager->init();
    }

    bool ready() const { return mReady; }
    OrvActionManager* manager() { return mManager; }
    LogCapture& log() { return mLog; }
    TempRoot& root() { return mRoot; }

    // Returns once every action sent before has executed.
    bool sync() {
        std::string app = "sync#" + std::to_string(++mSyncs);
        auto* marker = new OrvActionManager::OrvStateChangeAction("sync", "sync", app.c_str(), 0, 0);
        marker->send(mManager);
        return mLog.waitFor("STATE-CHANGE from[" + app + ", 0, 0, sync] to[" + app +
                            ", 0, 0, sync] event[]");
    }

    // Executed action records since the last clear, sync markers left out.
    std::vector<std::string> actions() const {
        std::vector<std::string> out;
        for (const auto& t : mLog.texts("OrvActionManager")) {
            if (t.find(" from[") != std::string::npos && t.find("] to[") != std::string::npos &&
                t.find("sync#") == std::string::npos)
                out.push_back(t);
        }
        return out;
    }

  private:
    TempRoot mRoot;
    LogCapture mLog;
    OrvActionManager* mManager = nullptr;
    bool mReady = false;
    int mSyncs = 0;
};

}  // namespace orvtest
