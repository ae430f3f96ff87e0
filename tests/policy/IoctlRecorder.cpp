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
bool gWatching = false;
dev_t gDev;
ino_t gIno;
ArgKind gKind = ArgKind::Text;
size_t gBytes = 0;
int gRet = 0;
int gErr = 0;
std::vector<Call> gCalls;
}  // namespace

void watch(const std::string& nodePath, ArgKind kind, size_t bytes) {
    struct stat st;
    std::lock_guard<std::mutex> lock(gLock);
    gWatching = stat(nodePath.c_str(), &st) == 0;
    gDev = st.st_dev;
    gIno = st.st_ino;
    gKind = kind;
    gBytes = bytes;
    gCalls.clear();
}

void setResult(int ret, int err) {
    std::lock_guard<std::mutex> lock(gLock);
    gRet = ret;
    gErr = err;
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
        if (gWatching && fstat(fd, &st) == 0 && st.st_dev == gDev && st.st_ino == gIno) {
            Call call{fd, static_cast<uint32_t>(request), arg == nullptr, std::string()};
            if (arg != nullptr) {
                const char* p = static_cast<const char*>(arg);
                call.arg = gKind == ArgKind::Text ? std::string(p) : std::string(p, gBytes);
            }
            gCalls.push_back(call);
            errno = gErr;
            return gRet;
        }
    }
    typedef int (*RealIoctl)(int, unsigned long, void*);
    static RealIoctl real = reinterpret_cast<RealIoctl>(dlsym(RTLD_NEXT, "ioctl"));
    return real ? real(fd, request, arg) : -1;
}
