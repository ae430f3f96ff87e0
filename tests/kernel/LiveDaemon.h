#pragma once
// The real bin/orvd on a policy in a temporary root, driven with orvctl.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "tools/ToolRun.h"

namespace kerneltest {

using orvtest::readFile;

class LiveDaemon {
  public:
    ~LiveDaemon() {
        if (mPid > 0) kill(mPid, SIGKILL), waitpid(mPid, nullptr, 0);
    }
    // Starts orvd with debug lines on `policy` and waits until it answers a dump.
    bool start(const std::string& policy) {
        mRoot.write("data/orvpolicy", policy);
        mRoot.write("dev/__properties__/sys.orv.debug.daemon", "1");
        std::string err = mRoot / "orvd.err";
        if ((mPid = fork()) == 0) {
            dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
            execl(ORV_BIN_DIR "/orvd", "orvd", static_cast<char*>(nullptr));
            _exit(127);
        }
        return orvtest::eventually([&] { return ctl("dump").status == 0; }, 10000);
    }
    orvtest::ToolResult ctl(const std::string& args) {
        return orvtest::runTool(mRoot, "orvctl", args);
    }
    std::string log() const { return readFile(mRoot / "orvd.err"); }
    bool logged(const std::string& part) const { return log().find(part) != std::string::npos; }
    // How many times `part` occurs in the log.
    int count(const std::string& part) const {
        std::string text = log();
        int n = 0;
        for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) ++n;
        return n;
    }
    // Waits until `actions` actions have been queued and run: orvctl returns once it has sent an
    // event, before orvd has read it.
    bool settle(int actions) {
        return orvtest::eventually([&] { return count("->==work finish") >= actions; });
    }

  private:
    orvtest::TempRoot mRoot;
    pid_t mPid = -1;
};

}  // namespace kerneltest
