#include <android/log.h>
#include <errno.h>
#include <orvhost/host.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <mutex>
#include <string>

#include "HostInternal.h"

namespace {

// One lock for the hook state and the stderr writes, so records never interleave and the hook
// never runs after it has been removed.
std::mutex gLogLock;
orvhost_log_hook_t gHook = nullptr;
void* gHookCookie = nullptr;
bool gEcho = true;

char levelLetter(int prio) {
    static const char kLetters[] = "VDIWEF";
    if (prio >= ANDROID_LOG_VERBOSE && prio <= ANDROID_LOG_FATAL) {
        return kLetters[prio - ANDROID_LOG_VERBOSE];
    }
    return prio == ANDROID_LOG_SILENT ? 'S' : '?';
}

std::string header(int prio, const char* tag) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm tm;
    time_t secs = tv.tv_sec;
    localtime_r(&secs, &tm);
    char buf[64];
    snprintf(buf, sizeof(buf), "%02d-%02d %02d:%02d:%02d.%03d %5d %5d %c ", tm.tm_mon + 1,
             tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(tv.tv_usec / 1000),
             static_cast<int>(getpid()), static_cast<int>(syscall(SYS_gettid)), levelLetter(prio));
    // The tag is padded like "%-8s" but never cut, however long it is.
    std::string out = buf;
    out += tag ? tag : "";
    if (out.size() < strlen(buf) + 8) out.resize(strlen(buf) + 8, ' ');
    return out + ": ";
}

// Every line of the text gets the same header; a final line feed only ends the last line.
std::string formatRecord(int prio, const char* tag, const char* text) {
    const std::string head = header(prio, tag);
    std::string out;
    const char* p = text;
    do {
        const char* nl = strchr(p, '\n');
        size_t len = nl ? static_cast<size_t>(nl - p) : strlen(p);
        out += head;
        out.append(p, len);
        out += '\n';
        p = nl ? nl + 1 : p + len;
    } while (*p != '\0');
    return out;
}

}  // namespace

void orvhost_set_log_hook(orvhost_log_hook_t hook, void* cookie, bool echo) {
    std::lock_guard<std::mutex> lock(gLogLock);
    gHook = hook;
    gHookCookie = hook ? cookie : nullptr;
    gEcho = hook ? echo : true;
}

extern "C" int __android_log_write(int prio, const char* tag, const char* text) {
    if (!text) text = "";
    int savedErrno = errno;
    std::lock_guard<std::mutex> lock(gLogLock);
    if (gHook) gHook(prio, tag, text, gHookCookie);
    if (gEcho) {
        const std::string record = formatRecord(prio, tag, text);
        orvhost::writeAll(STDERR_FILENO, record.data(), record.size());
    }
    errno = savedErrno;
    return 1;
}

extern "C" int __android_log_vprint(int prio, const char* tag, const char* fmt, va_list ap) {
    if (fmt == nullptr) return __android_log_write(prio, tag, "");
    int savedErrno = errno;
    char small[1024];
    va_list copy;
    va_copy(copy, ap);
    int n = vsnprintf(small, sizeof(small), fmt, copy);
    va_end(copy);
    std::string text;
    if (n < 0) {
        text = fmt;
    } else if (static_cast<size_t>(n) < sizeof(small)) {
        text.assign(small, static_cast<size_t>(n));
    } else {
        text.resize(static_cast<size_t>(n) + 1);
        // %m and similar read errno: give them the caller's value.
        errno = savedErrno;
        vsnprintf(&text[0], text.size(), fmt, ap);
        text.resize(static_cast<size_t>(n));
    }
    errno = savedErrno;
    return __android_log_write(prio, tag, text.c_str());
}

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int r = __android_log_vprint(prio, tag, fmt, ap);
    va_end(ap);
    return r;
}
