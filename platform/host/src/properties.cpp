#define LOG_TAG "properties"
#include <cutils/properties.h>
#include <errno.h>
#include <fcntl.h>
#include <log/log.h>
#include <orvhost/host.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mutex>
#include <string>

#include "HostInternal.h"

namespace {

// The name becomes a file name in the store, so these rules are also what keeps it inside.
bool validName(const char* key) {
    if (!key || key[0] == '\0') return false;
    size_t len = strlen(key);
    if (key[0] == '.' || key[len - 1] == '.' || strstr(key, "..")) return false;
    for (const char* p = key; *p; ++p) {
        char c = *p;
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '.' || c == '_' || c == '-' || c == '@' || c == ':';
        if (!ok) return false;
    }
    return true;
}

std::string storeDir() {
    return orvhost_path("/dev/__properties__");
}

// Reads at most PROPERTY_VALUE_MAX - 1 bytes of a stored value; -1 when there is none.
int readValue(const std::string& path, char* out) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) return -1;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        return -1;
    }
    int total = 0;
    while (total < PROPERTY_VALUE_MAX - 1) {
        ssize_t n = read(fd, out + total, PROPERTY_VALUE_MAX - 1 - total);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            close(fd);
            return -1;
        }
        if (n == 0) break;
        total += static_cast<int>(n);
    }
    close(fd);
    out[total] = '\0';
    return total;
}

// Serialises the "ro." check with the write inside this process.
std::mutex gSetLock;

}  // namespace

extern "C" int property_get(const char* key, char* value, const char* default_value) {
    if (!value) return 0;
    int len = validName(key) ? readValue(storeDir() + "/" + key, value) : -1;
    if (len > 0) return len;
    if (!default_value) {
        value[0] = '\0';
        return 0;
    }
    len = static_cast<int>(strnlen(default_value, PROPERTY_VALUE_MAX - 1));
    memcpy(value, default_value, static_cast<size_t>(len));
    value[len] = '\0';
    return len;
}

extern "C" int property_set(const char* key, const char* value) {
    if (!validName(key)) return -1;
    if (!value) value = "";
    size_t len = strlen(value);
    if (len >= PROPERTY_VALUE_MAX) return -1;

    std::lock_guard<std::mutex> lock(gSetLock);
    const std::string dir = storeDir();
    const std::string path = dir + "/" + key;
    if (strncmp(key, "ro.", 3) == 0) {
        char old[PROPERTY_VALUE_MAX];
        if (readValue(path, old) > 0) return -1;
    }
    if (!orvhost::makeDirs(dir)) {
        ALOGE("cannot create the property store %s (%s)", dir.c_str(), strerror(errno));
        return -1;
    }
    // A temporary file in the same directory (its leading dot is no valid property name), then
    // rename: readers see the old value or the new one, never a part.
    std::string tmp = dir + "/.set.XXXXXX";
    int fd = mkostemp(&tmp[0], O_CLOEXEC);
    if (fd < 0) return -1;
    bool ok = fchmod(fd, 0644) == 0 && orvhost::writeAll(fd, value, len);
    ok = close(fd) == 0 && ok;
    if (ok && rename(tmp.c_str(), path.c_str()) == 0) return 0;
    unlink(tmp.c_str());
    return -1;
}
