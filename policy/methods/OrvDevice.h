#pragma once
#include <sys/types.h>

// Where the method primitives touch the system. The daemon always uses the real one; a
// simulation installs a stand-in that keeps files and properties in memory and records
// ioctls and programs instead of performing them. Results and errno are as the real calls'.
class OrvDevice {
  public:
    virtual ~OrvDevice() = default;

    // property_get(name, value, nullptr); `value` holds PROPERTY_VALUE_MAX bytes.
    virtual int propertyGet(const char* name, char* value);
    virtual int propertySet(const char* name, const char* value);
    virtual int open(const char* path, int flags);
    virtual ssize_t read(int fd, void* buffer, size_t size);
    virtual ssize_t write(int fd, const void* data, size_t size);
    virtual int close(int fd);
    virtual int ioctl(int fd, unsigned long request, void* arg);
    // True when the stand-in took the program over; the real system leaves it to the caller.
    virtual bool divertProgram(const char* program, const char* arguments);

    // The installed device, or the real system when none is.
    static OrvDevice& get();
    // Installs `device` for the whole process (null: the real system). Install before the
    // action thread starts and keep it alive until the process ends.
    static void install(OrvDevice* device);
};
