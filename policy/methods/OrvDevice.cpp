#include "policy/methods/OrvDevice.h"

#include <cutils/properties.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>

namespace {
std::atomic<OrvDevice*> sInstalled{nullptr};
}

int OrvDevice::propertyGet(const char* name, char* value) {
    return property_get(name, value, nullptr);
}

int OrvDevice::propertySet(const char* name, const char* value) {
    return property_set(name, value);
}

int OrvDevice::open(const char* path, int flags) {
    return ::open(path, flags);
}

ssize_t OrvDevice::read(int fd, void* buffer, size_t size) {
    return ::read(fd, buffer, size);
}

ssize_t OrvDevice::write(int fd, const void* data, size_t size) {
    return ::write(fd, data, size);
}

int OrvDevice::close(int fd) {
    return ::close(fd);
}

int OrvDevice::ioctl(int fd, unsigned long request, void* arg) {
    return ::ioctl(fd, request, arg);
}

bool OrvDevice::divertProgram(const char*, const char*) {
    return false;
}

OrvDevice& OrvDevice::get() {
    // Never destroyed: the action thread may still run methods while exit() tears statics down.
    static OrvDevice* real = new OrvDevice;
    OrvDevice* device = sInstalled.load(std::memory_order_acquire);
    return device ? *device : *real;
}

void OrvDevice::install(OrvDevice* device) {
    sInstalled.store(device, std::memory_order_release);
}
