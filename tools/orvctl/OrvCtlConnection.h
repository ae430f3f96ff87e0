#pragma once
// A client connection to orvd's control socket.
#include <string>

class OrvCtlConnection {
  public:
    enum Result { OK, TIMED_OUT, CLOSED, FAILED };

    OrvCtlConnection() = default;
    ~OrvCtlConnection();
    OrvCtlConnection(const OrvCtlConnection&) = delete;
    OrvCtlConnection& operator=(const OrvCtlConnection&) = delete;

    // An empty path means the reserved socket "orvd". On failure `error` says why.
    bool open(const std::string& path, std::string& error);
    // Writes the frame with one call: orvd joins all clients' bytes in one buffer, so a frame
    // split across writes could be interleaved with another client's.
    bool sendFrame(const std::string& frame, std::string& error);
    // Reads one reply "<code> <text>" ending in a NUL byte.
    Result readReply(int timeoutMs, int& code, std::string& text);

  private:
    int mFd = -1;
    std::string mPending;  // bytes after a reply's NUL, kept for the next one
};
