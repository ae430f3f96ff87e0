#include "IoctlRecorder.h"

#include <dlfcn.h>
#include <errno.h>
#include <stdarg.h>
#include <string.h>
#include <sys/stat.h>

#include <mutex>

namespace ioctlrec {
namespace {
std::mutex gLock;
struct stat gNode;
bool gWatching = false;
size_t gBytes = 0;
int gRet = 0, gErr = 0;
std::vector<Call> gCalls;
}  // namespace

void watch(const std::string& nodePath, size_t bytes, int ret, int err) {
    std::lock_guard<std::mutex> lock(gLock);
    gWatching = stat(nodePath.c_str(), &gNode) == 0;
    gBytes = bytes;
    gRet = ret;
    gErr = err;
    gCalls.clear();
}

std::vector<Call> calls() {
    std::lock_guard<std::mutex> lock(gLock);
    return gCalls;
}

}  // namespace ioctlrec

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list ap;
    va_start(ap, request);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    {
        using namespace ioctlrec;
        struct stat st;
        std::lock_guard<std::mutex> lock(gLock);
        if (gWatching && fstat(fd, &st) == 0 && st.st_dev == gNode.st_dev &&
            st.st_ino == gNode.st_ino) {
            const char* p = static_cast<const char*>(arg);
            gCalls.push_back({fd, static_cast<uint32_t>(request), p == nullptr,
                              p == nullptr ? ""
                              : gBytes     ? std::string(p, gBytes)
                                           : p});
            errno = gErr;
            return gRet;
        }
    }
    typedef int (*RealIoctl)(int, unsigned long, void*);
    static RealIoctl real = reinterpret_cast<RealIoctl>(dlsym(RTLD_NEXT, "ioctl"));
    return real ? real(fd, request, arg) : -1;
}
