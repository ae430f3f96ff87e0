#pragma once
// Helpers shared by the host platform's sources.
#include <sys/socket.h>
#include <sys/un.h>

#include <string>

namespace orvhost {

// Blocks until `events` (or an error condition) on `fd`, riding out EINTR; the revents, or 0
// when poll itself failed or `timeoutMs` (-1: none) passed.
short waitFor(int fd, short events, int timeoutMs = -1);

// Writes all `len` bytes, riding out EINTR and short writes.
bool writeAll(int fd, const void* data, size_t len);

// Creates `dir` and its missing parents (mode 0755); true when it ends up a directory.
bool makeDirs(const std::string& dir);

// A filesystem-namespace address for `path`; false when the path does not fit.
bool fillAddress(const std::string& path, sockaddr_un* addr, socklen_t* addrLen);

}  // namespace orvhost
