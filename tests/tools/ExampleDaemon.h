#pragma once
// orvd running the example policy in a temporary root: its device paths point into the root,
// where the nodes it writes exist; its standard error is the file "orvd.log" there.
#include "support/Orvd.h"

namespace orvtest {

const char* const kExampleNodes[] = {
    "sys/devices/system/cpu/cpu0/cpufreq/scaling_governor",
    "sys/devices/system/cpu/cpu0/cpufreq/scaling_min_freq",
    "sys/class/drm/card0/gt_min_freq_mhz",
    "dev/cpuctl/top-app/cpu.uclamp.min",
    "dev/cpuctl/top-app/cgroup.procs",
};

// Writes the example policy, its paths moved under `root`, to `root/data/orvpolicy`.
inline bool installExamplePolicy(const TempRoot& root) {
    for (const char* node : kExampleNodes) root.write(node, "");
    std::string sed = "sed -e 's#\"/sys/#\"" + root.path() + "/sys/#g' -e 's#\"/dev/cpuctl/#\"" +
                      root.path() + "/dev/cpuctl/#g' " +
                      shellQuote(source("examples/tablet-policy.json")) + " > " +
                      shellQuote(root / "data/orvpolicy");
    return system(sed.c_str()) == 0;
}

// `debug` turns on orvd's debug lines before it starts.
class ExampleDaemon : public Orvd {
  public:
    ExampleDaemon(const TempRoot& root, bool debug) : Orvd(root) {
        installExamplePolicy(root);
        start(debug);
    }
};

}  // namespace orvtest
