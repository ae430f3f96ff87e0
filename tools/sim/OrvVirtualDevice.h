#pragma once
// The device a simulation runs against: sysfs-like files and properties kept in memory (each
// write replaces the value), ioctls and programs recorded and never performed. What is not
// yet known is read once from this machine, never written to it.
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "policy/methods/OrvDevice.h"

class OrvVirtualDevice : public OrvDevice {
  public:
    struct Effect {
        enum Kind { WRITE, PROP, IOCTL, PROGRAM };
        Kind kind;
        std::string target;  // path, property name or program
        std::string before;  // WRITE and PROP only
        std::string after;   // the value written; the request of an ioctl; the arguments
    };
    struct Entry {
        bool known = false;  // false: absent on this machine and never written
        std::string initial;
        std::string value;
        bool written = false;
    };
    using Sink = std::function<void(const Effect&)>;

    // `sink` hears every effect, on the thread that causes it. With `strictPaths` a node that
    // this machine lacks cannot be opened, as on the machine itself.
    OrvVirtualDevice(Sink sink, bool strictPaths) : mSink(sink), mStrict(strictPaths) {}

    int propertyGet(const char* name, char* value) override;
    int propertySet(const char* name, const char* value) override;
    int open(const char* path, int flags) override;
    ssize_t read(int fd, void* buffer, size_t size) override;
    ssize_t write(int fd, const void* data, size_t size) override;
    int close(int fd) override;
    int ioctl(int fd, unsigned long request, void* arg) override;
    bool divertProgram(const char* program, const char* arguments) override;

    // Everything touched so far, by path or property name.
    std::map<std::string, Entry> nodes() const;
    std::map<std::string, Entry> properties() const;
    // The properties' naming and size rules of the platform.
    static bool propertyAccepts(const std::string& name, const std::string& value, bool alreadySet);

  private:
    Entry& node(const std::string& path);
    Entry& property(const std::string& name);
    // The path an open descriptor stands for; null (and EBADF) for any other. Under mLock.
    const std::string* pathOf(int fd);

    Sink mSink;
    bool mStrict;
    mutable std::mutex mLock;
    std::map<std::string, Entry> mNodes;
    std::map<std::string, Entry> mProperties;
    std::map<int, std::string> mOpen;  // descriptor to path
    int mNextFd = 1 << 20;             // far from real descriptors
};
