// The yardstick of the end-to-end benchmark: the least a daemon can do for the same hop. It
// publishes "sys.orv.enable" the way the host store does, listens on the same socket, reads at
// most 511 bytes per arrival, cuts frames, and hands every LIST_VIEW event through a mutex and
// condition variable queue to a second thread that opens, writes and closes the effect file.
// Everything else a real daemon does (logging, a state machine, a policy) is left out on purpose.
// With --hold-lock the worker writes while still holding the queue mutex, so that producers wait
// for it as they wait for orvd's action queue: the same serialisation at the least cost.
#include <errno.h>
#include <fcntl.h>
#include <orv/protocol.h>
#include <poll.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <deque>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

std::string gRoot;
std::string gEffect;

pthread_mutex_t gLock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t gCond = PTHREAD_COND_INITIALIZER;
std::deque<char> gQueue;
bool gHoldLock = false;

void effect(char value) {
    int fd = open(gEffect.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd >= 0) {
        if (write(fd, &value, 1) != 1) perror("baseline: write");
        close(fd);
    }
}

void* worker(void*) {
    for (;;) {
        pthread_mutex_lock(&gLock);
        while (gQueue.empty()) pthread_cond_wait(&gCond, &gLock);
        char value = gQueue.front();
        gQueue.pop_front();
        if (gHoldLock) effect(value);
        pthread_mutex_unlock(&gLock);
        if (!gHoldLock) effect(value);
    }
    return nullptr;
}

void push(char value) {
    pthread_mutex_lock(&gLock);
    gQueue.push_back(value);
    pthread_mutex_unlock(&gLock);
    pthread_cond_signal(&gCond);
}

bool setEnable() {
    std::string dir = gRoot + "/dev/__properties__";
    mkdir((gRoot + "/dev").c_str(), 0755);
    mkdir(dir.c_str(), 0755);
    std::string tmp = dir + "/.set.XXXXXX";
    int fd = mkostemp(&tmp[0], O_CLOEXEC);
    if (fd < 0) return false;
    bool ok = write(fd, "true", 4) == 4;
    ok = close(fd) == 0 && ok;
    return ok && rename(tmp.c_str(), (dir + "/sys.orv.enable").c_str()) == 0;
}

int listenSocket() {
    std::string dir = gRoot + "/dev/socket";
    mkdir(dir.c_str(), 0755);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s/orvd", dir.c_str());
    unlink(addr.sun_path);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        listen(fd, 16) != 0) {
        perror("baseline: listen");
        return -1;
    }
    return fd;
}

struct Frames {
    std::string buf;
    std::unordered_map<int, std::string> names;

    // Same framing as the daemon's wire format; replies only to the bench's sync query.
    void consume(const char* data, size_t len, int client) {
        buf.append(data, len);
        size_t pos = 0;
        for (;;) {
            size_t comma = buf.find(',', pos), close = buf.find(']', pos);
            if (buf.compare(pos, 1, "[") != 0 || comma == std::string::npos ||
                close == std::string::npos)
                break;
            int code = atoi(buf.c_str() + pos + 1);
            size_t plen = static_cast<size_t>(atoi(buf.c_str() + comma + 1));
            if (buf.size() - close - 1 < plen) break;
            const char* payload = buf.c_str() + close + 1;
            dispatch(code, payload, plen, client);
            pos = close + 1 + plen;
        }
        buf.erase(0, pos);
    }

    void dispatch(int code, const char* payload, size_t len, int client) {
        const char* semi = static_cast<const char*>(memchr(payload, ';', len));
        int pid = atoi(payload);
        if (code == orv::LIST_VIEW && semi) {
            push(static_cast<char>('1' + atoi(semi + 1)));
        } else if (code == orv::PROCESS_START && semi) {
            names.emplace(pid, std::string(semi + 1, payload + len - semi - 1));
        } else if (code == orv::DISABLE_THERMAL) {
            static const std::string kReply =
                std::to_string(static_cast<int>(orv::DISABLE_THERMAL)) + orv::kReplySeparator +
                orv::kDefaultThermalMask;
            if (send(client, kReply.c_str(), kReply.size() + 1, MSG_NOSIGNAL) < 0)
                perror("baseline: send");
        }
    }
};

}  // namespace

int main(int argc, char** argv) {
    const char* root = getenv("ORV_ROOT");
    if (argc > 1 && strcmp(argv[1], "--hold-lock") == 0) {
        gHoldLock = true;
        --argc;
        ++argv;
    }
    if (!root || argc < 2) {
        fprintf(stderr, "usage: ORV_ROOT=DIR orv_bench_baseline [--hold-lock] EFFECT_FILE\n");
        return 2;
    }
    gRoot = root;
    gEffect = argv[1];
    pthread_t thread;
    pthread_create(&thread, nullptr, worker, nullptr);
    if (!setEnable()) return 1;
    int lfd = listenSocket();
    if (lfd < 0) return 1;

    std::vector<pollfd> fds = {{lfd, POLLIN, 0}};
    Frames frames;
    char data[512];
    for (;;) {
        if (poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR) return 1;
        for (size_t i = fds.size(); i-- > 1;) {
            if (!fds[i].revents) continue;
            ssize_t n = read(fds[i].fd, data, 511);
            if (n <= 0) {
                close(fds[i].fd);
                fds.erase(fds.begin() + static_cast<long>(i));
                continue;
            }
            data[n] = '\0';
            frames.consume(data, static_cast<size_t>(n), fds[i].fd);
        }
        if (fds[0].revents & POLLIN) {
            int c = accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC);
            if (c >= 0) fds.push_back({c, POLLIN, 0});
        }
    }
}
