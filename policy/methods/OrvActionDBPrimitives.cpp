#define LOG_TAG "OrvActionManager"
#define ATRACE_TAG ATRACE_TAG_POWER
#include <cutils/properties.h>
#include <cutils/trace.h>
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>

#include "core/OrvLog.h"
#include "policy/OrvActionDB.h"
#include "policy/OrvChildProcess.h"
#include "policy/methods/OrvDevice.h"
#include "policy/methods/OrvIoctlCfg.h"

// A counter per node or property holding what was written, beside the scheduler in a capture.
// Counters are numbers: a text value shows as an instant slice "NAME=VALUE" instead.
static void traceValue(const char* name, const char* value) {
    if (!ATRACE_ENABLED()) return;
    char* end = nullptr;
    errno = 0;
    long number = strtol(value, &end, 10);
    if (*value != '\0' && *end == '\0' && errno == 0 && number >= INT32_MIN && number <= INT32_MAX) {
        ATRACE_INT(name, static_cast<int32_t>(number));
        return;
    }
    std::string text = std::string(name) + "=" + value;
    ATRACE_BEGIN(text.c_str());
    ATRACE_END();
}

int OrvActionDB::getSystemProperty(const char* name, std::string& out) {
    char value[PROPERTY_VALUE_MAX + 1] = {};
    int ret = OrvDevice::get().propertyGet(name, value);
    if (ret < 1) {
        ALOGE("failed to get system property %s or value is .(ret = %d) @%s", name, ret,
              getCurActionInfoStr().c_str());
        out.clear();
        return -1;
    }
    if (OrvLogIsEnabled()) {
        ALOGD("property_get(%s):%s.(ret = %d) @%s", name, value, ret, getCurActionInfoStr().c_str());
    }
    out = value;
    return 0;
}

void OrvActionDB::setSystemProperty(const char* name, const char* value) {
    int ret = OrvDevice::get().propertySet(name, value);
    if (ret >= 0) traceValue(name, value);
    if (ret < 0) {
        ALOGE("failed to set system property %s:%s.(ret=%d) @%s", name, value, ret,
              getCurActionInfoStr().c_str());
    } else if (OrvLogIsEnabled()) {
        ALOGD("property_set(%s,%s) (ret:%d) @%s", name, value, ret, getCurActionInfoStr().c_str());
    }
}

int OrvActionDB::readFile(const char* path, char* buffer, int capacity) {
    if (capacity < 2) return -1;
    OrvDevice& device = OrvDevice::get();
    // O_NONBLOCK: an empty FIFO, /proc/kmsg or trace_pipe fails at once instead of holding the
    // action thread (and everything queued behind it) for good.
    int fd = device.open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return -1;
    ssize_t n = device.read(fd, buffer, capacity - 1);
    if (n <= 0) {
        device.close(fd);
        return -1;
    }
    buffer[n] = '\0';
    if (buffer[n - 1] == '\n') {
        buffer[--n] = '\0';
    }
    device.close(fd);
    return static_cast<int>(n);
}

int OrvActionDB::readFile(const char* path, std::string& out) {
    char buffer[256];
    int n = readFile(path, buffer, sizeof(buffer));
    if (n < 1) {
        out.clear();
        return -1;
    }
    out.assign(buffer, n);
    return 0;
}

int OrvActionDB::writeFile(const char* path, const char* text) {
    OrvDevice& device = OrvDevice::get();
    // A FIFO without a reader fails the open (ENXIO) rather than waiting for one.
    int fd = device.open(path, O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        int err = errno;
        ALOGE("cannot open \"%s\" (errno=%d) @%s", path, err, getCurActionInfoStr().c_str());
        return -err;
    }
    size_t len = strlen(text);
    ssize_t n;
    do {
        n = device.write(fd, text, len);
    } while (n < 0 && errno == EINTR);
    int err = errno;
    device.close(fd);
    if (n >= 0) {
        traceValue(path, text);
        return 0;
    }
    ALOGE("write \"%s\" failed (errno=%d) @%s", path, err, getCurActionInfoStr().c_str());
    return -1;
}

void OrvActionDB::shell(const char* program, const char* arguments, int timeoutMs) {
    if (OrvDevice::get().divertProgram(program, arguments)) return;
    std::string command = std::string(program) + " " + arguments;
    bool timedOut = false;
    int ret = OrvChildProcess::runShell(command.c_str(), timeoutMs, timedOut);
    if (timedOut) {
        ALOGE("system(\"%s\") killed after %d ms @%s", command.c_str(), timeoutMs,
              getCurActionInfoStr().c_str());
    } else if (ret == -1) {
        ALOGE("system(\"%s\") failed @%s", command.c_str(), getCurActionInfoStr().c_str());
    } else if (ret != 0) {
        ALOGW("system(\"%s\") return:%d @%s", command.c_str(), ret, getCurActionInfoStr().c_str());
    }
}

// Descriptors the ioctl methods must leave free: the platform's listener that runs out of them
// stops serving every client for good.
static const rlim_t kClientHeadroom = 64;

// Whether `fd` may stay open for the daemon's life, as drivers expect of an ioctl's node; near
// the descriptor limit the node is closed after use instead, said once.
static bool keepIoctlDescriptor(int fd) {
    static const rlim_t limit = [] {
        rlimit rl;
        return getrlimit(RLIMIT_NOFILE, &rl) == 0 ? rl.rlim_cur : RLIM_INFINITY;
    }();
    if (limit == RLIM_INFINITY || static_cast<rlim_t>(fd) + kClientHeadroom < limit) return true;
    static std::atomic<bool> warned{false};
    if (!warned.exchange(true)) {
        ALOGW("descriptor %d of %llu: ioctl nodes are opened per use from now on", fd,
              static_cast<unsigned long long>(limit));
    }
    return false;
}

// The descriptors below stay open while there is room: every execution opens the node afresh,
// as drivers expect.
int OrvActionDB::writeIoctl(const char* path, OrvIoctlCfg& cfg, void* arg) {
    OrvDevice& device = OrvDevice::get();
    int fd = device.open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        int err = errno;
        ALOGE("Cannot open \"%s\"(errno=%d) @%s", path, err, getCurActionInfoStr().c_str());
        return -err;
    }
    // Fields go in unmasked: out-of-range values spill into neighbouring bits on purpose.
    uint32_t base = (static_cast<uint32_t>(cfg.type) << 8) | static_cast<uint32_t>(cfg.nr);
    uint32_t sized = (static_cast<uint32_t>(cfg.size) << 16) | base;
    uint32_t request;
    switch (cfg.dir) {
        case 0:
            request = base;
            break;
        case 1:
            request = 0x40000000u | sized;
            break;
        case 2:
            request = 0x80000000u | sized;
            break;
        case 3:
            request = 0xC0000000u | sized;
            break;
        default:
            ALOGE("Invalid ioctl dir(%d) @%s", cfg.dir, getCurActionInfoStr().c_str());
            if (!keepIoctlDescriptor(fd)) device.close(fd);
            return 1;
    }
    int ret = device.ioctl(fd, request, arg);
    int err = errno;
    if (!keepIoctlDescriptor(fd)) device.close(fd);
    ORV_LOGD("ioctl return = %d @%s", ret, getCurActionInfoStr().c_str());
    if (ret < 0) {
        ALOGE("ioctl{path:%s dir:%d type:%d nr:%d size:%d param_type:%s} (ret=%d, errno=%d) @%s",
              path, cfg.dir, cfg.type, cfg.nr, cfg.size, cfg.param_type.c_str(), ret, err,
              getCurActionInfoStr().c_str());
        return -ret;
    }
    return 0;
}

void OrvActionDB::writeOrvIoctl(const char* path, int cmd, const char* value) {
    OrvDevice& device = OrvDevice::get();
    int fd = device.open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        int err = errno;
        ALOGE("cannot open \"%s\" (errno=%d) @%s", path, err, getCurActionInfoStr().c_str());
        return;
    }
    uint32_t request = 0x40047800u | static_cast<uint32_t>(cmd);
    int ret = device.ioctl(fd, request, const_cast<char*>(value));
    int err = errno;
    if (!keepIoctlDescriptor(fd)) device.close(fd);
    ORV_LOGD("ioctl return = %d @%s", ret, getCurActionInfoStr().c_str());
    if (ret < 0) {
        ALOGE("orv_ioctl{path:%s cmd:%d value:%s} (ret=%d, errno=%d) @%s", path, cmd, value, ret,
              err, getCurActionInfoStr().c_str());
    }
}

int OrvActionDB::getVarString(OrvAction* action, const char* name, std::string& out) {
    if (action == nullptr || name == nullptr) return -1;
    int id;
    if (strcmp(name, "PID") == 0) {
        id = action->mToPid;
    } else if (strcmp(name, "GLTID") == 0) {
        id = action->mToGLTid;
    } else if (strcmp(name, "EXIT_GLTID") == 0) {
        id = action->mFromGLTid;
    } else if (strcmp(name, "EXIT_PID") == 0) {
        id = action->mFromPid;
    } else {
        ALOGE("Unknown var(%s) @%s", name, getCurActionInfoStr().c_str());
        return -1;
    }
    if (id < 0) return -1;
    out = std::to_string(id);
    return 0;
}

int OrvActionDB::getMethodType(const char* method) {
    static const char* const kNames[] = {"xfs", "orv_ioctl", "ioctl", "prop", "program", "group"};
    if (method == nullptr) return METHOD_UNKNOWN;
    for (int i = 0; i < METHOD_UNKNOWN; ++i) {
        if (strcmp(method, kNames[i]) == 0) return i;
    }
    return METHOD_UNKNOWN;
}
