#define LOG_TAG "properties"
#include <cutils/properties.h>
#include <errno.h>
#include <fcntl.h>
#include <log/log.h>
#include <orvhost/host.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
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

// Values a process has read stay valid until inotify reports a change in the store's directory.
// The kernel queues the event before the writing call returns, so a reader that drains the queue
// first sees every change made before its read, by whatever means: one read of the queue per
// property_get instead of an open, a read and a close.
constexpr uint32_t kWatchMask = IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_CREATE | IN_DELETE |
                                IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF |
                                IN_ONLYDIR;

struct CachedValue {
    int len;  // -1: no value
    char value[PROPERTY_VALUE_MAX];
};

struct WatchedStore {
    std::mutex lock;
    std::string dir;  // the store the watch and the values belong to
    int inotifyFd = -1;
    int watch = -1;
    std::unordered_map<std::string, CachedValue> values;
    // The last value looked up, by name: the daemon asks for the same one on every read, and
    // finding it this way builds no string. Elements keep their place until they are erased.
    std::string lastKey;
    CachedValue* last = nullptr;
    // The store directory readers last asked for, and the ORV_ROOT it was made from: the path
    // is rebuilt only when the variable changes.
    std::string readerDir;
    std::string rootEnv;

    void forget(const char* name) {
        if (values.erase(name) && last && lastKey == name) last = nullptr;
    }
    void forgetAll() {
        values.clear();
        last = nullptr;
    }
    void unwatch() {
        if (watch >= 0) inotify_rm_watch(inotifyFd, watch);
        watch = -1;
        forgetAll();
    }

    // True when the values kept for `storeDir` may be used: the directory is watched and every
    // change reported so far has been applied.
    bool sync(const std::string& storeDir) {
        if (storeDir != dir) {
            unwatch();
            dir = storeDir;
        }
        if (inotifyFd < 0) inotifyFd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (inotifyFd < 0) return false;
        for (int pass = 0; pass < 2; ++pass) {
            if (watch < 0) {
                // Whatever happened while nobody watched is unknown: start from nothing.
                forgetAll();
                watch = inotify_add_watch(inotifyFd, dir.c_str(), kWatchMask);
                if (watch < 0) return false;
            }
            if (drain()) return true;
            unwatch();  // the directory itself went away or events were lost
        }
        return false;
    }

  private:
    // Applies the queued events; false when the watch no longer tells the whole story.
    bool drain() {
        alignas(inotify_event) char buf[4096];
        bool whole = true;
        for (;;) {
            ssize_t n = read(inotifyFd, buf, sizeof(buf));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return whole;
            for (ssize_t at = 0; at < n;) {
                const auto* ev = reinterpret_cast<const inotify_event*>(buf + at);
                at += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
                // What is still queued for a watch given up before (its IN_IGNORED last).
                if (ev->wd != watch && !(ev->mask & IN_Q_OVERFLOW)) continue;
                if (ev->mask & (IN_Q_OVERFLOW | IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)) {
                    whole = false;
                } else if (ev->len > 0) {
                    forget(ev->name);
                } else {
                    forgetAll();
                }
            }
        }
    }
};

// Never destroyed: threads may still read while the process exits.
WatchedStore& watchedStore() {
    static WatchedStore* store = [] {
        auto* s = new WatchedStore;
        // A child shares the parent's inotify queue: reading it would steal the parent's events.
        pthread_atfork([] { watchedStore().lock.lock(); }, [] { watchedStore().lock.unlock(); },
                       [] {
                           WatchedStore& c = watchedStore();
                           if (c.inotifyFd >= 0) close(c.inotifyFd);
                           c.inotifyFd = c.watch = -1;
                           c.forgetAll();
                           c.lock.unlock();
                       });
        return s;
    }();
    return *store;
}

// The store directory for the current ORV_ROOT, rebuilt only when the variable changed.
const std::string& cachedStoreDir(WatchedStore& cache) {
    const char* env = getenv("ORV_ROOT");
    // An unset ORV_ROOT and an empty one name the same store.
    if (env == nullptr) env = "";
    if (cache.readerDir.empty() || cache.rootEnv != env) {
        cache.rootEnv = env;
        cache.readerDir = storeDir();
    }
    return cache.readerDir;
}

// A stored value as readValue gives it, from what this process read before while the store's
// directory reports no change to it.
int readStored(const char* key, char* out) {
    WatchedStore& cache = watchedStore();
    std::lock_guard<std::mutex> lock(cache.lock);
    const std::string& dir = cachedStoreDir(cache);
    if (!cache.sync(dir)) return readValue(dir + "/" + key, out);
    CachedValue* value = cache.last;
    if (value == nullptr || strcmp(cache.lastKey.c_str(), key) != 0) {
        auto it = cache.values.find(key);
        value = it == cache.values.end() ? nullptr : &it->second;
    }
    if (value == nullptr) {
        // Read after the watch was in place: a change racing with it is reported next time.
        CachedValue fresh;
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
    if (ok && rename(tmp.c_str(), path.c_str()) == 0) return 0;
    unlink(tmp.c_str());
    return -1;
}
