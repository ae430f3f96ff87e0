#pragma once
// A listening socket that stands in for orvd: it keeps every byte each connection wrote and
// answers each message that orvd would answer with "<code> ok".
#include <orv/protocol.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace orvtest {

class WireRecorder {
  public:
    explicit WireRecorder(const std::string& path) : mPath(path) {
        mListen = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
        unlink(path.c_str());
        bind(mListen, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
        listen(mListen, 8);
        pipe(mStop);
        mThread = std::thread([this] { serve(); });
    }
    ~WireRecorder() {
        write(mStop[1], "x", 1);
        mThread.join();
        for (auto& c : mConns) close(c.fd);
        close(mListen);
        close(mStop[0]);
        close(mStop[1]);
        unlink(mPath.c_str());
    }

    // All bytes received so far, connections in the order they were accepted.
    std::string bytes() const {
        std::lock_guard<std::mutex> guard(mLock);
        std::string all;
        for (const auto& c : mConns) all += c.bytes;
        return all;
    }
    // Forgets what was received.
    void clear() {
        std::lock_guard<std::mutex> guard(mLock);
        for (auto& c : mConns) c.bytes.clear();
    }

  private:
    struct Conn {
        int fd;
        std::string bytes;
        std::string unparsed;
    };

    void serve() {
        for (;;) {
            std::vector<pollfd> fds = {{mStop[0], POLLIN, 0}, {mListen, POLLIN, 0}};
            {
                std::lock_guard<std::mutex> guard(mLock);
                for (const auto& c : mConns) fds.push_back({c.fd, POLLIN, 0});
            }
            if (poll(fds.data(), fds.size(), -1) < 0) continue;
            if (fds[0].revents) return;
            std::lock_guard<std::mutex> guard(mLock);
            if (fds[1].revents & POLLIN)
                mConns.push_back({accept(mListen, nullptr, nullptr), "", ""});
            for (size_t i = 2; i < fds.size(); ++i) {
                if (!fds[i].revents) continue;
                Conn& c = mConns[i - 2];
                char buf[4096];
                ssize_t n = read(c.fd, buf, sizeof(buf));
                if (n <= 0) continue;
                c.bytes.append(buf, n);
                c.unparsed.append(buf, n);
                answer(c);
            }
        }
    }

    // Replies to every complete frame that expects one.
    static void answer(Conn& c) {
        for (;;) {
            size_t close = c.unparsed.find(']');
            size_t comma = c.unparsed.find(',');
            if (c.unparsed.empty() || close == std::string::npos || comma > close) return;
            int code = atoi(c.unparsed.c_str() + 1);
            size_t len = strtoul(c.unparsed.c_str() + comma + 1, nullptr, 10);
            if (c.unparsed.size() < close + 1 + len) return;
            std::string payload = c.unparsed.substr(close + 1, len);
            c.unparsed.erase(0, close + 1 + len);
            if (!orv::expectsReply(code, payload)) continue;
            std::string reply = std::to_string(code) + " ok";
            send(c.fd, reply.c_str(), reply.size() + 1, MSG_NOSIGNAL);
        }
    }

    std::string mPath;
    int mListen = -1;
    int mStop[2] = {-1, -1};
    mutable std::mutex mLock;
    std::vector<Conn> mConns;
    std::thread mThread;
};

}  // namespace orvtest
