#include "core/OrvDevicePath.h"

#include <string.h>

#ifdef ORV_DATA_DIR
static const char* const kDataDir = ORV_DATA_DIR;
#else
static const char* const kDataDir = nullptr;
#endif

std::string OrvDataPlacement(const char* devicePath, const char* dataDir) {
    static const char kData[] = "/data/";
    const size_t dataLen = sizeof(kData) - 1;
    if (dataDir && *dataDir && strncmp(devicePath, kData, dataLen) == 0 &&
        devicePath[dataLen] != '\0' && !strchr(devicePath + dataLen, '/'))
        return std::string(dataDir) + "/" + (devicePath + dataLen);
    return devicePath;
}

#ifdef __ANDROID__
std::string OrvDevicePath(const char* devicePath) {
    return OrvDataPlacement(devicePath, kDataDir);
}
#else
#include <orvhost/host.h>

std::string OrvDevicePath(const char* devicePath) {
    return orvhost_path(OrvDataPlacement(devicePath, kDataDir).c_str());
}
#endif
