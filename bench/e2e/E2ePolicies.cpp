#include "E2ePolicies.h"

namespace {

std::string xfs(const std::string& path, const std::string& value) {
    return R"({ "method": "xfs", "path": ")" + path + R"(", "type": "string", "value": ")" + value +
           R"(" })";
}

std::string head() {
    return R"({ "parser": "v1.0", "version": "v1.0",
  "default": { "action": { "reset": { "policy": [ { "method": "group", "path": "base" } ] } } },
  "policy_group": {
    "base": [ )" +
           xfs("/sys/devices/system/cpu/cpu0/cpufreq/scaling_min_freq", "800000") + ", " +
           xfs("/dev/cpuctl/top-app/cpu.uclamp.min", "0") + R"( ],
    "boost": [ )" +
           xfs("/sys/devices/system/cpu/cpu0/cpufreq/scaling_min_freq", "2400000") + R"( ]
  },
  "applications": {
)";
}

std::string app(int i) {
    const std::string n = std::to_string(i);
    return R"(    "com.generated.app)" + n + R"(": {
      "param": { "event_mask": "0101", "thermal_mask": "001", "hardware_acceleration": "1" },
      "action": {
        "launch": { "on_enter": [ { "method": "group", "path": "boost" } ] },
        "run": { "policy": [ )" +
           xfs("/dev/cpuctl/top-app/cpu.uclamp.min", std::to_string(i % 100)) + R"( ] },
        "listview_scroll": { "on_enter": [ )" +
           xfs("/sys/class/drm/card0/gt_min_freq_mhz", std::to_string(300 + i % 600)) +
           R"( ] }
      }
    })";
}

}  // namespace

std::string e2eEventPolicy(const std::string& effect) {
    return R"({ "parser": "v1.0", "version": "v1.0",
  "default": { "action": { "reset": { "policy": [] } } },
  "applications": { "com.bench.app": { "action": {
    "run": { "on_enter": [ )" +
           xfs(effect, "1") + R"( ] },
    "listview_scroll": { "on_enter": [ )" +
           xfs(effect, "2") + R"( ] },
    "listview_fling": { "on_enter": [ )" +
           xfs(effect, "3") + R"( ] } } } } }
)";
}

std::string e2eManyAppsPolicy(int apps) {
    std::string doc = head();
    for (int i = 0; i < apps; ++i) doc += (i ? ",\n" : "") + app(i);
    return doc + "\n  }\n}\n";
}

std::string e2eSizedPolicy(size_t bytes) {
    std::string doc = head();
    const std::string tail = "\n  }\n}\n";
    for (int i = 0;; ++i) {
        std::string next = (i ? ",\n" : "") + app(i);
        if (doc.size() + next.size() + tail.size() > bytes) break;
        doc += next;
    }
    return doc + tail;
}
