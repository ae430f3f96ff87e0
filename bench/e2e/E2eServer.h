#pragma once
// One server process under test (orvd or the baseline), run in its own root directory.
#include <sys/types.h>

#include <string>
#include <vector>

class E2eServer {
  public:
    E2eServer(std::string label, std::vector<std::string> argv, std::string root);
    ~E2eServer();

    // Starts the process and waits until "sys.orv.enable" reads "true"; the elapsed
    // nanoseconds from just before the fork, or -1.
    long long start();
    void stop();
    // Ends the process as an operator would, with SIGINT, so that a tool it runs under writes its
    // report; false when it did not end in time (it is then killed).
    bool interrupt();
    // Connects a client to the control socket, retrying while it is not yet listening.
    bool connectClient();
    bool sendAll(const std::string& bytes);
    // Sends a DISABLE_THERMAL query and waits for its reply: everything sent before is handled.
    bool sync();

    long rssKb() const;
    // From smaps_rollup: the proportional share ("Pss") or a private part ("Private_Dirty").
    long memoryKb(const char* field) const;
    // CPU time of all the process's threads so far, in nanoseconds.
    long long cpuNs() const;
    // Context switches of all the process's threads so far, voluntary and not.
    long long switches() const;
    // Pins the thread that waits for socket data to `listenerCpu` and every other thread (the
    // worker, and orvd's idle main and timer threads) to `workerCpu`. False when no thread is
    // found waiting in poll, or a pin fails.
    bool pin(int listenerCpu, int workerCpu) const;

    const std::string& label() const { return mLabel; }
    const std::string& root() const { return mRoot; }
    pid_t pid() const { return mPid; }

  private:
    std::string mLabel;
    std::vector<std::string> mArgv;
    std::string mRoot;
    pid_t mPid = -1;
    int mClient = -1;
};
