#include "tools/sim/OrvVirtualDevice.h"

#include <cutils/properties.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

namespace {

// The live value of a readable file, as the engine reads values (one trailing line feed off).
bool readLive(const std::string& path, std::string& out) {
    int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK);
    if (fd < 0) return false;
    char buf[4096];
    ssize_t n = ::read(fd, buf, sizeof(buf));
    ::close(fd);
    if (n < 0) return false;
    out.assign(buf, n);
    if (!out.empty() && out.back() == '\n') out.pop_back();
    return true;
}

}  // namespace

OrvVirtualDevice::Entry& OrvVirtualDevice::node(const std::string& path) {
    auto it = mNodes.find(path);
    if (it != mNodes.end()) return it->second;
    Entry& e = mNodes[path];
    e.known = readLive(path, e.initial);
    e.value = e.initial;
    return e;
}

OrvVirtualDevice::Entry& OrvVirtualDevice::property(const std::string& name) {
    auto it = mProperties.find(name);
    if (it != mProperties.end()) return it->second;
    Entry& e = mProperties[name];
    char value[PROPERTY_VALUE_MAX + 1] = {};
    e.known = property_get(name.c_str(), value, nullptr) > 0;
    e.initial = e.value = value;
    return e;
}

bool OrvVirtualDevice::propertyAccepts(const std::string& name, const std::string& value,
                                       bool alreadySet) {
    if (name.empty() || name.front() == '.' || name.back() == '.' ||
        name.find("..") != std::string::npos)
        return false;
    for (unsigned char c : name)
        if (!isalnum(c) && !strchr("._-@:", c)) return false;
    if (value.size() >= PROPERTY_VALUE_MAX) return false;
    return !(alreadySet && name.compare(0, 3, "ro.") == 0);
}

const std::string* OrvVirtualDevice::pathOf(int fd) {
    auto it = mOpen.find(fd);
    if (it != mOpen.end()) return &it->second;
    errno = EBADF;
    return nullptr;
}

int OrvVirtualDevice::propertyGet(const char* name, char* value) {
    std::lock_guard<std::mutex> lock(mLock);
    const Entry& e = property(name);
    snprintf(value, PROPERTY_VALUE_MAX, "%s", e.value.c_str());
    return static_cast<int>(strlen(value));
}

int OrvVirtualDevice::propertySet(const char* name, const char* value) {
    Effect effect;
    {
        std::lock_guard<std::mutex> lock(mLock);
        Entry& e = property(name);
        if (!propertyAccepts(name, value, !e.value.empty())) return -1;
        effect = {Effect::PROP, name, e.known || e.written ? e.value : "", value};
        e.value = value;
        e.written = true;
    }
    mSink(effect);
    return 0;
}

int OrvVirtualDevice::open(const char* path, int flags) {
    std::lock_guard<std::mutex> lock(mLock);
    Entry& e = node(path);
    // Device nodes for ioctls are opened read-write; they are never on the host.
    const bool forIoctl = (flags & O_ACCMODE) == O_RDWR;
    if (!e.known && !e.written && (mStrict || (flags & O_ACCMODE) == O_RDONLY) && !forIoctl) {
        errno = ENOENT;
        return -1;
    }
    mOpen[mNextFd] = path;
    return mNextFd++;
}

ssize_t OrvVirtualDevice::read(int fd, void* buffer, size_t size) {
    std::lock_guard<std::mutex> lock(mLock);
    const std::string* path = pathOf(fd);
    if (!path) return -1;
    const std::string& value = mNodes[*path].value;
    size_t n = value.size() < size ? value.size() : size;
    memcpy(buffer, value.data(), n);
    return static_cast<ssize_t>(n);
}

ssize_t OrvVirtualDevice::write(int fd, const void* data, size_t size) {
    Effect effect;
    {
        std::lock_guard<std::mutex> lock(mLock);
        const std::string* path = pathOf(fd);
        if (!path) return -1;
        Entry& e = mNodes[*path];
        effect = {Effect::WRITE, *path, e.known || e.written ? e.value : "",
                  std::string(static_cast<const char*>(data), size)};
        e.value = effect.after;
        e.written = true;
    }
    mSink(effect);
    return static_cast<ssize_t>(size);
}

int OrvVirtualDevice::close(int fd) {
    std::lock_guard<std::mutex> lock(mLock);
    if (mOpen.erase(fd) == 0) {
        errno = EBADF;
        return -1;
    }
    return 0;
}

int OrvVirtualDevice::ioctl(int fd, unsigned long request, void*) {
    Effect effect;
    {
        std::lock_guard<std::mutex> lock(mLock);
        const std::string* path = pathOf(fd);
        if (!path) return -1;
        char text[32];
        snprintf(text, sizeof(text), "0x%08lx", request);
        effect = {Effect::IOCTL, *path, "", text};
    }
    mSink(effect);
    return 0;
}

bool OrvVirtualDevice::divertProgram(const char* program, const char* arguments) {
    mSink({Effect::PROGRAM, program, "", arguments});
    return true;
}

std::map<std::string, OrvVirtualDevice::Entry> OrvVirtualDevice::nodes() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mNodes;
}

std::map<std::string, OrvVirtualDevice::Entry> OrvVirtualDevice::properties() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mProperties;
}
