#define LOG_TAG "properties"
#include <cutils/properties.h>
#include <errno.h>
#include <fcntl.h>
#include <log/log.h>
#include <orvhost/host.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <unordered_map>

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

// Every set bumps a 64-bit counter in the store's ".serial" file (its leading dot is no valid
// property name), mapped shared by every process that reads. A reader keeps the values it has
// read and re-reads only after the counter moved, or kRecheckMs later for a file written by
// hand, so an unchanged property costs no open() per read.
const char kSerialName[] = "/.serial";
const size_t kSerialSize = sizeof(uint64_t);

struct CachedValue {
    uint64_t serial;
    int len;  // -1: no value
    char value[PROPERTY_VALUE_MAX];
};

// The store's counter, mapped once per process (writable where the file allows it), and the
// values this process has read.
struct SerialStore {
    std::mutex lock;
    std::string dir;  // the store the mapping and the values belong to
    int fd = -1;
    uint64_t* serial = nullptr;
    bool writable = false;
    std::unordered_map<std::string, CachedValue> values;
    // The last value looked up, by name: the daemon asks for the same one on every read, and
    // finding it this way builds no string. Elements keep their place until values is cleared.
    std::string lastKey;
    CachedValue* last = nullptr;
    // The store directory readers last asked for, and the ORV_ROOT it was made from: the path
    // is rebuilt only when the variable changes.
    std::string readerDir;
    std::string rootEnv;

    void clearValues() {
        values.clear();
        last = nullptr;
    }

    // The counter of `storeDir`, mapped on first use; null while there is none. A setter
    // (`create`) makes the file and needs it writable. A counter whose file was removed or
    // replaced (the store deleted or moved under us) is dropped with every value read: at once
    // by a setter, within kRecheckMs by a reader, which must not pay a system call per read.
    uint64_t* counter(const std::string& storeDir, bool create) {
        bool recheck = create || serial == nullptr || dueForRecheck();
        if (storeDir != dir || (serial && recheck && !stillLinked()) ||
            (create && serial && !writable)) {
            unmap();
            dir = storeDir;
        }
        if (!serial) map(create);
        // A value written straight into its file moves no counter; it shows within kRecheckMs.
        if (recheck) clearValues();
        return serial;
    }

  private:
    static constexpr long long kRecheckMs = 100;
    long long checkedMs = 0;

    bool dueForRecheck() {
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
        long long ms = now.tv_sec * 1000LL + now.tv_nsec / 1000000;
        if (ms - checkedMs < kRecheckMs) return false;
        checkedMs = ms;
        return true;
    }
    void unmap() {
        if (serial) munmap(serial, kSerialSize);
        if (fd >= 0) close(fd);
        serial = nullptr;
        fd = -1;
        clearValues();
    }
    // The mapped file is still the one the store's path names (not removed, not replaced). The
    // mapping keeps its inode alive, so a new file cannot reuse its number.
    bool stillLinked() const {
        struct stat st;
        return stat((dir + kSerialName).c_str(), &st) == 0 && st.st_dev == mappedDev &&
               st.st_ino == mappedIno;
    }
    void map(bool create) {
        const std::string path = dir + kSerialName;
        const int flags = O_CLOEXEC | O_NOFOLLOW;
        writable = true;
        fd = open(path.c_str(), O_RDWR | flags | (create ? O_CREAT : 0), 0644);
        if (fd < 0 && !create) {
            writable = false;
            fd = open(path.c_str(), O_RDONLY | flags);
        }
        if (fd < 0) return;
        struct stat st;
        void* p = MAP_FAILED;
        // Growing is idempotent, so setters racing to create the file cannot clear a count.
        bool sized = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) &&
                     (st.st_size >= static_cast<off_t>(kSerialSize) ||
                      (create && ftruncate(fd, kSerialSize) == 0));
        if (sized) {
            p = mmap(nullptr, kSerialSize, writable ? PROT_READ | PROT_WRITE : PROT_READ,
                     MAP_SHARED, fd, 0);
        }
        if (p == MAP_FAILED) {
            close(fd);
            fd = -1;
            return;
        }
        serial = static_cast<uint64_t*>(p);
        mappedDev = st.st_dev;
        mappedIno = st.st_ino;
    }
    dev_t mappedDev = 0;
    ino_t mappedIno = 0;
};

// Never destroyed: threads may still read while the process exits.
SerialStore& serialStore() {
    static SerialStore* store = new SerialStore;
    return *store;
}

// Called after the new value is in place, so a reader that sees the new count reads it.
void bumpSerial(const std::string& dir) {
    SerialStore& store = serialStore();
    std::lock_guard<std::mutex> lock(store.lock);
    if (uint64_t* serial = store.counter(dir, true)) {
        __atomic_add_fetch(serial, 1, __ATOMIC_RELEASE);
    }
}

// The store directory for the current ORV_ROOT, rebuilt only when the variable changed.
const std::string& cachedStoreDir(SerialStore& cache) {
    const char* env = getenv("ORV_ROOT");
    // An unset ORV_ROOT and an empty one name the same store.
    if (env == nullptr) env = "";
    if (cache.readerDir.empty() || cache.rootEnv != env) {
        cache.rootEnv = env;
        cache.readerDir = storeDir();
    }
    return cache.readerDir;
}

// A stored value as readValue gives it, from the cache while the store's counter stands still.
int readStored(const char* key, char* out) {
    SerialStore& cache = serialStore();
    std::lock_guard<std::mutex> lock(cache.lock);
    const std::string& dir = cachedStoreDir(cache);
    const uint64_t* counter = cache.counter(dir, false);
    if (!counter) return readValue(dir + "/" + key, out);
    const uint64_t serial = __atomic_load_n(counter, __ATOMIC_ACQUIRE);
    CachedValue* value = cache.last;
    if (value == nullptr || strcmp(cache.lastKey.c_str(), key) != 0) {
        auto it = cache.values.find(key);
        value = it == cache.values.end() ? nullptr : &it->second;
    }
    if (value == nullptr || value->serial != serial) {
        // The count is taken before the read: a set racing with it moves the count again.
        CachedValue fresh;
        fresh.serial = serial;
        fresh.len = readValue(dir + "/" + key, fresh.value);
        value = &cache.values.insert_or_assign(key, fresh).first->second;
    }
    if (value != cache.last) {
        cache.lastKey = key;
        cache.last = value;
    }
    if (value->len >= 0) memcpy(out, value->value, value->len + 1);
    return value->len;
}

}  // namespace

extern "C" int property_get(const char* key, char* value, const char* default_value) {
    if (!value) return 0;
    int len = validName(key) ? readStored(key, value) : -1;
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
    char old[PROPERTY_VALUE_MAX];
    const int oldLen = readValue(path, old);
    if (strncmp(key, "ro.", 3) == 0 && oldLen > 0) return -1;
    // Setting what is already stored changes nothing a reader can see; the file, the rename and
    // the journal work it costs are skipped. A stored text that may run on past what readValue
    // takes is never called equal.
    if (oldLen == static_cast<int>(len) && len < PROPERTY_VALUE_MAX - 1 &&
        memcmp(old, value, len) == 0)
        return 0;
    // A temporary file in the same directory (its leading dot is no valid property name), then
    // rename: readers see the old value or the new one, never a part. The store is made only
    // when the file cannot be, which spares every later set the walk down its path.
    std::string tmp = dir + "/.set.XXXXXX";
    int fd = mkostemp(&tmp[0], O_CLOEXEC);
    if (fd < 0) {
        if (!orvhost::makeDirs(dir)) {
            ALOGE("cannot create the property store %s (%s)", dir.c_str(), strerror(errno));
            return -1;
        }
        tmp = dir + "/.set.XXXXXX";
        fd = mkostemp(&tmp[0], O_CLOEXEC);
    }
    if (fd < 0) return -1;
    bool ok = fchmod(fd, 0644) == 0 && orvhost::writeAll(fd, value, len);
    ok = close(fd) == 0 && ok;
    if (ok && rename(tmp.c_str(), path.c_str()) == 0) {
        bumpSerial(dir);
        return 0;
    }
    unlink(tmp.c_str());
    return -1;
}
