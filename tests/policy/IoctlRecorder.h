#pragma once
#include <stdint.h>

#include <string>
#include <vector>

// Records ioctl calls made on one regular file (the "node"); all other calls go to libc.
namespace ioctlrec {

enum class ArgKind { Text, Bytes };

struct Call {
    int fd;
    uint32_t request;
    bool nullArg;
    std::string arg;  // text up to its NUL, or the first `size` bytes of the argument
};

// Starts recording on `nodePath`; `kind` and `bytes` say how to copy the argument.
void watch(const std::string& nodePath, ArgKind kind, size_t bytes = 0);
void setResult(int ret, int err);  // what the recorded calls return
std::vector<Call> calls();

}  // namespace ioctlrec
