#include "E2eServer.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <fstream>

#include "E2eClock.h"
#include "protocol/include/orv/protocol.h"

E2eServer::E2eServer(std::string label, std::vector<std::string> argv, std::string root)
    : mLabel(std::move(label)), mArgv(std::move(argv)), mRoot(std::move(root)) {}

E2eServer::~E2eServer() {
    stop();
}

static std::string readSmall(const std::string& path) {
    char buf[64];
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return "";
    ssize_t n = read(fd, buf, sizeof(buf));
    close(fd);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
}

long long E2eServer::start() {
    const std::string props = mRoot + "/dev/__properties__";
    mkdir((mRoot + "/dev").c_str(), 0755);
    mkdir(props.c_str(), 0755);
    const std::string enable = props + "/sys.orv.enable";
    unlink(enable.c_str());
    int in = inotify_init1(IN_CLOEXEC);
    if (in < 0 || inotify_add_watch(in, props.c_str(), IN_MOVED_TO | IN_CLOSE_WRITE) < 0) {
        perror("bench: inotify");
        return -1;
    }
    std::vector<char*> argv;
    for (auto& a : mArgv) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    const std::string env = "ORV_ROOT=" + mRoot;

    long long t0 = e2eNowNs();
    mPid = fork();
    if (mPid == 0) {
        int devnull = open("/dev/null", O_RDWR);
        dup2(devnull, 1);
        dup2(devnull, 2);
        putenv(const_cast<char*>(env.c_str()));
        execv(argv[0], argv.data());
        _exit(127);
    }
    long long elapsed = -1;
    char events[4096];
    while (mPid > 0) {
        if (readSmall(enable) == "true") {
            elapsed = e2eNowNs() - t0;
            break;
        }
        if (e2eNowNs() - t0 > 30000000000LL) break;
        pollfd p = {in, POLLIN, 0};
        if (poll(&p, 1, 1000) > 0 && read(in, events, sizeof(events)) < 0 && errno != EINTR) break;
    }
    close(in);
    if (elapsed < 0) fprintf(stderr, "bench: %s did not start\n", mLabel.c_str());
    return elapsed;
}

void E2eServer::stop() {
    if (mClient >= 0) close(mClient);
    mClient = -1;
    if (mPid > 0) {
        kill(mPid, SIGKILL);
        waitpid(mPid, nullptr, 0);
    }
    mPid = -1;
}

bool E2eServer::interrupt() {
    if (mClient >= 0) close(mClient);
    mClient = -1;
    if (mPid <= 0) return false;
    kill(mPid, SIGINT);
    for (int i = 0; i < 60000; ++i) {
        if (waitpid(mPid, nullptr, WNOHANG) == mPid) {
            mPid = -1;
            return true;
        }
        usleep(1000);
    }
    fprintf(stderr, "bench: %s did not end on SIGINT\n", mLabel.c_str());
    stop();
    return false;
}

bool E2eServer::connectClient() {
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s/dev/socket/orvd", mRoot.c_str());
    for (int i = 0; i < 5000; ++i) {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0) {
            mClient = fd;
            return true;
        }
        close(fd);
        usleep(1000);
    }
    fprintf(stderr, "bench: cannot connect to %s\n", mLabel.c_str());
    return false;
}

bool E2eServer::sendAll(const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = send(mClient, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool E2eServer::sync() {
    if (!sendAll(orv::frame(orv::DISABLE_THERMAL, "x"))) return false;
    char c;
    for (;;) {
        ssize_t n = read(mClient, &c, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        if (c == '\0') return true;
    }
}

long E2eServer::memoryKb(const char* field) const {
    std::ifstream in("/proc/" + std::to_string(mPid) + "/smaps_rollup");
    const std::string key = std::string(field) + ":";
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, key.size(), key) == 0) return atol(line.c_str() + key.size());
    }
    return -1;
}

long E2eServer::rssKb() const {
    std::ifstream in("/proc/" + std::to_string(mPid) + "/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, 6, "VmRSS:") == 0) return atol(line.c_str() + 6);
    }
    return -1;
}

static std::vector<std::string> taskDirs(pid_t pid) {
    std::vector<std::string> out;
    const std::string dir = "/proc/" + std::to_string(pid) + "/task";
    DIR* tasks = opendir(dir.c_str());
    if (!tasks) return out;
    while (dirent* e = readdir(tasks)) {
        if (e->d_name[0] != '.') out.push_back(dir + "/" + e->d_name);
    }
    closedir(tasks);
    return out;
}

long long E2eServer::switches() const {
    long long total = 0;
    for (const std::string& task : taskDirs(mPid)) {
        std::ifstream in(task + "/status");
        std::string line;
        while (std::getline(in, line)) {
            if (line.find("ctxt_switches:") != std::string::npos)
                total += atoll(line.c_str() + line.find(':') + 1);
        }
    }
    return total;
}

// The listener is the thread blocked in a poll-like call; the rest wait on futexes.
static bool waitsForSockets(const std::string& task) {
    std::ifstream in(task + "/syscall");
    long nr = -1;
    if (!(in >> nr)) return false;
    return nr == SYS_poll || nr == SYS_ppoll || nr == SYS_select || nr == SYS_pselect6 ||
           nr == SYS_epoll_wait || nr == SYS_epoll_pwait;
}

bool E2eServer::pin(int listenerCpu, int workerCpu) const {
    // The listener may be between two polls, handling the last bytes: look again until it waits.
    std::vector<std::string> tasks;
    std::vector<bool> listener;
    for (int attempt = 0; attempt < 2000; ++attempt) {
        tasks = taskDirs(mPid);
        listener.assign(tasks.size(), false);
        int listeners = 0;
        for (size_t i = 0; i < tasks.size(); ++i)
            listeners += listener[i] = waitsForSockets(tasks[i]);
        if (listeners == 1) break;
        if (attempt == 1999) {
            fprintf(stderr, "bench: %s: %d threads wait in poll\n", mLabel.c_str(), listeners);
            return false;
        }
        usleep(1000);
    }
    bool ok = true;
    for (size_t i = 0; i < tasks.size(); ++i) {
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(listener[i] ? listenerCpu : workerCpu, &set);
        pid_t tid = atoi(tasks[i].c_str() + tasks[i].rfind('/') + 1);
        ok = sched_setaffinity(tid, sizeof(set), &set) == 0 && ok;
    }
    return ok;
}

// Nanoseconds on a CPU, summed over the threads (schedstat's first field); the tick-based
// times of /proc/PID/stat are too coarse for a few thousand events.
long long E2eServer::cpuNs() const {
    long long total = 0;
    for (const std::string& task : taskDirs(mPid)) {
        std::ifstream in(task + "/schedstat");
        long long ns = 0;
        if (in >> ns) total += ns;
    }
    return total;
}
