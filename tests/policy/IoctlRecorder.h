#pragma once
#include <stdint.h>

#include <string>
#include <vector>

// Records ioctl calls made on one regular file (the "node"); all other calls go to libc.
namespace ioctlrec {

struct Call {
    int fd;
    uint32_t request;
    bool nullArg;
    std::string arg;  // text up to its NUL, or the first `bytes` bytes of the argument
};

// Starts recording on `nodePath`, the calls returning `ret` with errno `err`; `bytes` 0 copies
// the argument as text.
void watch(const std::string& nodePath, size_t bytes = 0, int ret = 0, int err = 0);
std::vector<Call> calls();

}  // namespace ioctlrec
