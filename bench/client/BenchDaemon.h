#pragma once
// orvd in a throw-away root with a policy that does nothing, so that only the client, the socket
// and the daemon's event path are measured.
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

class BenchDaemon {
  public:
    static constexpr const char* kApp = "com.bench.app";

    explicit BenchDaemon(const std::string& binDir) {
        char tmpl[] = "/tmp/orvbench.XXXXXX";
        mRoot = mkdtemp(tmpl) ? tmpl : "";
        std::filesystem::create_directories(mRoot + "/data");
        std::ofstream(mRoot + "/data/orvpolicy")
            << R"({ "parser": "v1.0", "version": "v1.0", "applications": { ")" << kApp
            << R"(": { "param": { "event_mask": "1" } } } })";
        mPid = fork();
        if (mPid == 0) {
            setenv("ORV_ROOT", mRoot.c_str(), 1);
            if (freopen((mRoot + "/orvd.log").c_str(), "w", stderr) != nullptr)
                execl((binDir + "/orvd").c_str(), "orvd", static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    ~BenchDaemon() {
        if (mPid > 0) {
            kill(mPid, SIGKILL);
            waitpid(mPid, nullptr, 0);
        }
        std::error_code ec;
        std::filesystem::remove_all(mRoot, ec);
    }
    BenchDaemon(const BenchDaemon&) = delete;
    BenchDaemon& operator=(const BenchDaemon&) = delete;

    std::string socket() const { return mRoot + "/dev/socket/orvd"; }

  private:
    std::string mRoot;
    pid_t mPid = -1;
};
