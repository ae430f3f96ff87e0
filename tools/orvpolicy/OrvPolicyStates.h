#pragma once
// What the checker and the restore analysis both know of the scenario's states beyond their
// names (orv::state): which of them a framework event ends, and so may take a time-out too.
#include <string>

class OrvPolicyStates {
  public:
    // States left on a framework event, which "<state>_timeout" may end by time instead.
    static bool isEventEnded(const std::string& state) {
        return state == "launch" || state == "start" || state == "scale" ||
               state == "listview_scroll" || state == "listview_fling" || state == "rotate";
    }
    // "<state>_timeout" for such a state.
    static bool isEndTimeout(const std::string& key) {
        const size_t n = key.size();
        return n > 8 && key.compare(n - 8, 8, "_timeout") == 0 && isEventEnded(key.substr(0, n - 8));
    }
};
