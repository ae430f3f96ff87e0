#pragma once
// One connection to orvd's control socket: whole frames out, "<code> <text>\0" replies in.
#include <string>
#include <string_view>
#include <utility>

// Relative, so that it resolves whatever include path the user gives.
#include "../../../protocol/include/orv/protocol.h"

class OrvConnection {
  public:
    enum Result { OK, TIMED_OUT, CLOSED, FAILED };

    OrvConnection() = default;
    ~OrvConnection();
    OrvConnection(const OrvConnection&) = delete;
    OrvConnection& operator=(const OrvConnection&) = delete;

    // An empty path means the reserved socket "orvd". Never waits: a daemon whose backlog is
    // full counts as unreachable. On failure `error` says why.
    bool open(const std::string& path, std::string& error);
    bool isOpen() const { return mFd >= 0; }
    void swap(OrvConnection& other) {
        std::swap(mFd, other.mFd);
        mPending.swap(other.mPending);
    }
    void close();
    // Makes a write blocked in another thread return; the descriptor stays until close().
    void shutdown();
    // Bounds every later write (0: none).
    void setSendTimeout(int ms);
    // Writes all of `bytes`, each frame whole: orvd may join a partial frame with another
    // client's bytes.
    bool send(std::string_view bytes, std::string& error);
    // Reads one reply within `timeoutMs`.
    Result readReply(int timeoutMs, orv::Reply& reply);

  private:
    int mFd = -1;
    std::string mPending;  // bytes after a reply's end, kept for the next one
};
