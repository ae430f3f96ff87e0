#include "daemon/core/OrvDevicePath.h"

#ifdef __ANDROID__
std::string OrvDevicePath(const char* devicePath) {
    return devicePath;
}
#else
#include <orvhost/host.h>

std::string OrvDevicePath(const char* devicePath) {
    return orvhost_path(devicePath);
}
#endif
