#include <android/log.h>
#include <errno.h>
#include <orvhost/host.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>

#include "HostInternal.h"

namespace {

// Records go out without a lock: each is formatted in full and written with one write(). A
// signal handler that logs may interrupt a record on its own thread; that nested record then
// avoids everything that can wait for a lock the interrupted one holds (malloc, the time zone
// lock of localtime_r, the hook's lock) and never waits itself.
std::mutex gHookLock;  // serialises hook calls, which tests install
orvhost_log_hook_t gHook = nullptr;
void* gHookCookie = nullptr;
std::atomic<bool> gHookSet{false};
std::atomic<bool> gEcho{true};

thread_local int tDepth = 0;  // records in progress on this thread

// getpid() and gettid() per record are system calls; both are cached, and refreshed in a child
// after fork().
std::atomic<int> gPid{0};
thread_local int tTid = 0;
std::atomic<long> gUtcOffset{0};  // seconds east of UTC, from the last localtime_r

void refreshAfterFork() {
    gPid.store(static_cast<int>(getpid()), std::memory_order_relaxed);
    tTid = 0;
}
// Registered at start-up, not by the first record: a signal handler's record that interrupted
// that registration re-entered it and crashed.
const bool gForkHandlerSet = pthread_atfork(nullptr, nullptr, refreshAfterFork) == 0;

int cachedPid() {
    int pid = gPid.load(std::memory_order_relaxed);
    if (pid == 0) {
        pid = static_cast<int>(getpid());
        gPid.store(pid, std::memory_order_relaxed);
    }
    return pid;
}

int cachedTid() {
    if (tTid == 0) tTid = static_cast<int>(syscall(SYS_gettid));
    return tTid;
}

// Calendar fields of `secs` (already shifted to local time) without any lock.
void civilTime(long long secs, struct tm* tm) {
    long long days = secs / 86400, rem = secs % 86400;
    if (rem < 0) rem += 86400, --days;
    tm->tm_hour = static_cast<int>(rem / 3600);
    tm->tm_min = static_cast<int>(rem % 3600 / 60);
    tm->tm_sec = static_cast<int>(rem % 60);
    days += 719468;
    const long long era = (days >= 0 ? days : days - 146096) / 146097;
    const long long doe = days - era * 146097;
    const long long yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const long long doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const long long mp = (5 * doy + 2) / 153;
    tm->tm_mday = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
    tm->tm_mon = static_cast<int>(mp < 10 ? mp + 2 : mp - 10);
}

void localTime(time_t secs, bool nested, struct tm* tm) {
    if (nested) {
        civilTime(static_cast<long long>(secs) + gUtcOffset.load(std::memory_order_relaxed), tm);
        return;
    }
    localtime_r(&secs, tm);
    gUtcOffset.store(tm->tm_gmtoff, std::memory_order_relaxed);
}

// The bytes of one record: on the stack, spilling to the heap only where allocating is safe.
class RecordBuffer {
  public:
    explicit RecordBuffer(bool mayAllocate) : mMayAllocate(mayAllocate) {}
    void append(const char* p, size_t n) {
        if (mHeap.empty() && mLen + n <= sizeof(mStack)) {
            memcpy(mStack + mLen, p, n);
            mLen += n;
        } else if (mMayAllocate) {
            if (mHeap.empty()) mHeap.assign(mStack, mLen);
            mHeap.append(p, n);
        } else {
            n = sizeof(mStack) - mLen < n ? sizeof(mStack) - mLen : n;
            memcpy(mStack + mLen, p, n);
            mLen += n;
        }
    }
    const char* data() const { return mHeap.empty() ? mStack : mHeap.data(); }
    size_t size() const { return mHeap.empty() ? mLen : mHeap.size(); }

  private:
    char mStack[8192];
    size_t mLen = 0;
    bool mMayAllocate;
    std::string mHeap;
};

char levelLetter(int prio) {
    static const char kLetters[] = "VDIWEF";
    if (prio >= ANDROID_LOG_VERBOSE && prio <= ANDROID_LOG_FATAL) {
        return kLetters[prio - ANDROID_LOG_VERBOSE];
    }
    return prio == ANDROID_LOG_SILENT ? 'S' : '?';
}

// Two or three decimal digits, zero-padded ("%02d", "%03d" of a value that fits).
char* putDigits(char* out, int value, int width) {
    for (int i = width - 1; i >= 0; --i, value /= 10) out[i] = static_cast<char>('0' + value % 10);
    return out + width;
}

// "%5d": right-aligned in five columns, wider when it needs more.
char* putPadded(char* out, int value) {
    char digits[12];
    int n = 0;
    unsigned int u = value < 0 ? 0u - static_cast<unsigned int>(value) : value;
    do {
        digits[n++] = static_cast<char>('0' + u % 10);
        u /= 10;
    } while (u != 0);
    if (value < 0) digits[n++] = '-';
    for (int pad = n; pad < 5; ++pad) *out++ = ' ';
    while (n > 0) *out++ = digits[--n];
    return out;
}

// The parts of a header that stay put: "MM-DD HH:MM:SS" for one second and "  PID   TID" for
// one thread. Kept per thread, a record in the same second as the one before costs neither
// localtime_r nor printf. Nested records only read a copy of their own, never this one.
struct HeadParts {
    time_t second = -1;
    char clock[14];
    int pid = 0, tid = 0;
    char ids[32];
    size_t idsLen = 0;
};
thread_local HeadParts tHead;

void refreshParts(time_t second, bool nested, HeadParts& parts) {
    if (parts.second != second) {
        struct tm tm;
        localTime(second, nested, &tm);
        char* p = putDigits(parts.clock, tm.tm_mon + 1, 2);
        *p++ = '-';
        p = putDigits(p, tm.tm_mday, 2);
        *p++ = ' ';
        p = putDigits(p, tm.tm_hour, 2);
        *p++ = ':';
        p = putDigits(p, tm.tm_min, 2);
        *p++ = ':';
        putDigits(p, tm.tm_sec, 2);
        parts.second = second;
    }
    const int pid = cachedPid(), tid = cachedTid();
    if (parts.idsLen == 0 || parts.pid != pid || parts.tid != tid) {
        char* p = putPadded(parts.ids, pid);
        *p++ = ' ';
        p = putPadded(p, tid);
        parts.idsLen = static_cast<size_t>(p - parts.ids);
        parts.pid = pid;
        parts.tid = tid;
    }
}

// Fills `head` with the threadtime header and returns its length.
size_t header(int prio, const char* tag, bool nested, char* head, size_t size) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    HeadParts own;
    HeadParts& parts = nested ? own : tHead;
    refreshParts(now.tv_sec, nested, parts);
    char* p = head;
    memcpy(p, parts.clock, sizeof(parts.clock));
    p += sizeof(parts.clock);
    *p++ = '.';
    p = putDigits(p, static_cast<int>(now.tv_nsec / 1000000), 3);
    *p++ = ' ';
    memcpy(p, parts.ids, parts.idsLen);
    p += parts.idsLen;
    *p++ = ' ';
    *p++ = levelLetter(prio);
    *p++ = ' ';
    size_t len = static_cast<size_t>(p - head);
    // The tag is padded like "%-8s" but never cut, however long it is.
    const size_t tagStart = len;
    for (const char* t = tag ? tag : ""; *t != '\0' && len + 3 < size; ++t) head[len++] = *t;
    while (len < tagStart + 8 && len + 3 < size) head[len++] = ' ';
    head[len++] = ':';
    head[len++] = ' ';
    return len;
}

// Every line of the text gets the same header; a final line feed only ends the last line.
void formatRecord(int prio, const char* tag, const char* text, bool nested, RecordBuffer& out) {
    char head[256];
    const size_t headLen = header(prio, tag, nested, head, sizeof(head));
    const char* p = text;
    do {
        const char* nl = strchr(p, '\n');
        size_t len = nl ? static_cast<size_t>(nl - p) : strlen(p);
        out.append(head, headLen);
        out.append(p, len);
        out.append("\n", 1);
        p = nl ? nl + 1 : p + len;
    } while (*p != '\0');
}

struct DepthGuard {
    DepthGuard() { ++tDepth; }
    ~DepthGuard() { --tDepth; }
    bool nested() const { return tDepth > 1; }
};

}  // namespace

void orvhost_set_log_hook(orvhost_log_hook_t hook, void* cookie, bool echo) {
    std::lock_guard<std::mutex> lock(gHookLock);
    gHook = hook;
    gHookCookie = hook ? cookie : nullptr;
    gHookSet.store(hook != nullptr);
    gEcho.store(hook ? echo : true);
}

namespace {

// `nested`: this thread was already inside a record when this one began.
int writeRecord(int prio, const char* tag, const char* text, bool nested) {
    // A nested record skips the hook: its lock may be held by the record it interrupted.
    if (gHookSet.load() && !nested) {
        std::lock_guard<std::mutex> lock(gHookLock);
        if (gHook) gHook(prio, tag, text, gHookCookie);
    }
    if (gEcho.load()) {
        RecordBuffer record(!nested);
        formatRecord(prio, tag, text, nested, record);
        orvhost::writeAll(STDERR_FILENO, record.data(), record.size());
    }
    return 1;
}

}  // namespace

extern "C" int __android_log_write(int prio, const char* tag, const char* text) {
    int savedErrno = errno;
    DepthGuard depth;
    int r = writeRecord(prio, tag, text ? text : "", depth.nested());
    errno = savedErrno;
    return r;
}

extern "C" int __android_log_vprint(int prio, const char* tag, const char* fmt, va_list ap) {
    int savedErrno = errno;
    DepthGuard depth;
    char small[1024];
    const char* text = small;
    std::string large;
    int n = fmt ? 0 : -1;
    // A format without conversions is its own text; printf would only copy it.
    if (fmt != nullptr && !depth.nested() && strchr(fmt, '%') == nullptr) {
        text = fmt;
    } else if (fmt != nullptr) {
        va_list copy;
        va_copy(copy, ap);
        n = vsnprintf(small, sizeof(small), fmt, copy);
        va_end(copy);
    }
    if (n < 0) {
        text = fmt ? fmt : "";
    } else if (static_cast<size_t>(n) >= sizeof(small) && !depth.nested()) {
        // A nested record keeps what fits: allocating could wait for the interrupted one.
        large.resize(static_cast<size_t>(n) + 1);
        // %m and similar read errno: give them the caller's value.
        errno = savedErrno;
        vsnprintf(&large[0], large.size(), fmt, ap);
        large.resize(static_cast<size_t>(n));
        text = large.c_str();
    }
    int r = writeRecord(prio, tag, text, depth.nested());
    errno = savedErrno;
    return r;
}

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int r = __android_log_vprint(prio, tag, fmt, ap);
    va_end(ap);
    return r;
}
