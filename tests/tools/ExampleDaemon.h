#pragma once
// orvd running the example policy in a temporary root: its device paths point into the root,
// where the nodes it writes exist; its standard error is the file "orvd.log" there.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tools/ToolRun.h"

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

class ExampleDaemon {
  public:
    // `debug` turns on orvd's debug lines before it starts.
    ExampleDaemon(const TempRoot& root, bool debug) : mRoot(root) {
        installExamplePolicy(root);
        if (debug) root.write("dev/__properties__/sys.orv.debug.daemon", "1");
        mPid = fork();
        if (mPid == 0) {
            if (freopen((root / "orvd.log").c_str(), "w", stderr) != nullptr)
                execl(bin("orvd").c_str(), "orvd", static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    // SIGINT is orvd's normal stop; an exit that hangs is not what these tests are about.
    ~ExampleDaemon() {
        if (mPid <= 0) return;
        kill(mPid, SIGINT);
        if (!eventually([&] { return waitpid(mPid, nullptr, WNOHANG) == mPid; }, 3000)) {
            kill(mPid, SIGKILL);
            waitpid(mPid, nullptr, 0);
        }
    }
    ExampleDaemon(const ExampleDaemon&) = delete;
    ExampleDaemon& operator=(const ExampleDaemon&) = delete;

    // Whether orvd answers a dump within a few seconds.
    bool ready() const {
        return mPid > 0 && eventually([&] { return runTool(mRoot, "orvctl", "dump").status == 0; });
    }
    std::string log() const { return readFile(mRoot / "orvd.log"); }
    pid_t pid() const { return mPid; }

  private:
    const TempRoot& mRoot;
    pid_t mPid;
};

}  // namespace orvtest
