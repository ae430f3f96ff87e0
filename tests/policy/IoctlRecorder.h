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

// Starts recording on `nodePath`; `bytes` 0 copies the argument as text.
void watch(const std::string& nodePath, size_t bytes = 0);
void setResult(int ret, int err);  // what the recorded calls return
std::vector<Call> calls();

}  // namespace ioctlrec
