#pragma once
// A group of the machine's writable cgroup cpu controller, when there is one.
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "support/ToolRun.h"

namespace kerneltest {

// A fresh group under the cgroup cpu controller (v1 "cpu.shares" or v2 "cpu.weight"), removed
// again at the end. `why` says what is missing when there is none.
class CpuCgroup {
  public:
    CpuCgroup() {
        if (geteuid() != 0) {
            mWhy = "creating a cgroup needs root";
            return;
        }
        std::ifstream mounts("/proc/mounts");
        std::string dev, dir, type, opts, line;
        while (std::getline(mounts, line) && mPath.empty()) {
            std::istringstream(line) >> dev >> dir >> type >> opts;
            if (type == "cgroup" && ("," + opts + ",").find(",cpu,") != std::string::npos) {
                mKnob = "cpu.shares";
            } else if (type == "cgroup2" &&
                       (" " + orvtest::readFile(dir + "/cgroup.subtree_control")).find(" cpu") !=
                           std::string::npos) {
                mKnob = "cpu.weight";
            } else {
                continue;
            }
            std::string path = dir + "/orvtest-kernel." + std::to_string(getpid());
            if (mkdir(path.c_str(), 0755) == 0) mPath = path;
        }
        if (mPath.empty()) mWhy = "no writable cgroup cpu controller (v1 cpu or v2 cpu.weight)";
    }
    ~CpuCgroup() {
        // A task that has just left still holds the group for a moment.
        if (!mPath.empty())
            orvtest::eventually([&] { return rmdir(mPath.c_str()) == 0 || errno != EBUSY; });
    }
    const std::string& why() const { return mWhy; }
    const std::string& path() const { return mPath; }
    std::string file(const std::string& name) const { return mPath + "/" + name; }
    const std::string& knob() const { return mKnob; }

  private:
    std::string mPath, mKnob, mWhy;
};

}  // namespace kerneltest
