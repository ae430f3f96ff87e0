#pragma once
// The real bin/orvd as a child process on the policy in a temporary root. Its standard error is
// the file "orvd.log" there; its standard output goes to /dev/null, so that programs a policy
// starts, which may outlive it, keep nothing of the test's open.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "support/ToolRun.h"

namespace orvtest {

class Orvd {
  public:
    explicit Orvd(const TempRoot& root) : mRoot(root) {}
    // SIGINT is orvd's normal stop; an exit that hangs is not what the tests that end here test.
    ~Orvd() { stop(SIGINT, 3000); }
    Orvd(const Orvd&) = delete;
    Orvd& operator=(const Orvd&) = delete;

    // Starts orvd, its debug lines on when `debug`; `inChild` runs in the child before the exec.
    void start(bool debug, const std::function<void()>& inChild = nullptr) {
        if (debug) mRoot.write("dev/__properties__/sys.orv.debug.daemon", "1");
        const std::string log = mRoot / "orvd.log";
        if ((mPid = fork()) == 0) {
            dup2(open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
            dup2(open("/dev/null", O_WRONLY), 1);
            if (inChild) inChild();
            execl(bin("orvd").c_str(), "orvd", static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    // Whether orvd answers a dump.
    bool ready() const {
        return mPid > 0 && eventually([&] { return ctl("dump").status == 0; });
    }
    ToolResult ctl(const std::string& args) const { return runTool(mRoot, "orvctl", args); }
    // Sends `sig` and reaps orvd, killed if it has not ended after `ms`; its wait status.
    int stop(int sig = SIGINT, int ms = kWaitMs) {
        int status = -1;
        if (mPid <= 0) return status;
        kill(mPid, sig);
        if (!eventually([&] { return waitpid(mPid, &status, WNOHANG) == mPid; }, ms))
            kill(mPid, SIGKILL), waitpid(mPid, &status, 0);
        mPid = -1;
        return status;
    }
    bool alive() const { return mPid > 0 && waitpid(mPid, nullptr, WNOHANG) == 0; }
    pid_t pid() const { return mPid; }

    std::string log() const { return readFile(mRoot / "orvd.log"); }
    bool logged(const std::string& part) const { return log().find(part) != std::string::npos; }
    // How many times `part` occurs in the log.
    int count(const std::string& part) const {
        const std::string text = log();
        int n = 0;
        for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) ++n;
        return n;
    }

  private:
    const TempRoot& mRoot;
    pid_t mPid = -1;
};

}  // namespace orvtest
