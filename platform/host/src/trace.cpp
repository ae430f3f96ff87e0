#include <cutils/properties.h>
#include <cutils/trace.h>
#include <fcntl.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

namespace {

const char* const kTraceFs[] = {"/sys/kernel/tracing", "/sys/kernel/debug/tracing"};
// How long a reading of "tracing_on" is trusted; a capture started later is seen this late.
const int64_t kRecheckNs = 200 * 1000000LL;

std::once_flag sSetup;
// Set once setup is done: std::call_once costs two thread-local stores on every call.
std::atomic<bool> sReady{false};
int sMarker = -1;
char sTracingOn[128];
std::atomic<uint64_t> sTags{0};
std::atomic<int64_t> sCheckedAt{0};

int64_t coarseNs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
    return ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

void setup() {
    for (const char* dir : kTraceFs) {
        char path[128];
        snprintf(path, sizeof(path), "%s/trace_marker", dir);
        int fd = open(path, O_WRONLY | O_CLOEXEC);
        if (fd < 0) continue;
        sMarker = fd;
        snprintf(sTracingOn, sizeof(sTracingOn), "%s/tracing_on", dir);
        return;
    }
}

// As on a device, the capture tool names the tags it wants in a property; the kernel must be
// tracing as well.
void refresh() {
    char flags[PROPERTY_VALUE_MAX] = {};
    property_get("debug.atrace.tags.enableflags", flags, "0");
    uint64_t tags = strtoull(flags, nullptr, 0);
    if (tags == 0) {
        sTags.store(0, std::memory_order_relaxed);
        return;
    }
    char c = '0';
    int fd = open(sTracingOn, O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        if (read(fd, &c, 1) != 1) c = '0';
        close(fd);
    }
    sTags.store(c == '1' ? tags : 0, std::memory_order_relaxed);
}

void emit(const char* text, int length) {
    if (length <= 0) return;
    // One write, one record: concurrent writers never interleave inside it.
    ssize_t n = write(sMarker, text, length < 1024 ? length : 1024);
    (void)n;
}

}  // namespace

void atrace_init(void) {
    if (sReady.load(std::memory_order_acquire)) return;
    std::call_once(sSetup, setup);
    sReady.store(true, std::memory_order_release);
}

uint64_t atrace_get_enabled_tags(void) {
    atrace_init();
    if (sMarker < 0) return 0;
    int64_t now = coarseNs();
    int64_t checked = sCheckedAt.load(std::memory_order_relaxed);
    if (now - checked >= kRecheckNs &&
        sCheckedAt.compare_exchange_strong(checked, now, std::memory_order_relaxed))
        refresh();
    return sTags.load(std::memory_order_relaxed);
}

void atrace_begin_body(const char* name) {
    char buf[1024];
    emit(buf, snprintf(buf, sizeof(buf), "B|%d|%s", getpid(), name));
}

void atrace_end_body(void) {
    char buf[32];
    emit(buf, snprintf(buf, sizeof(buf), "E|%d", getpid()));
}

void atrace_int_body(const char* name, int32_t value) {
    char buf[1024];
    emit(buf, snprintf(buf, sizeof(buf), "C|%d|%s|%" PRId32, getpid(), name, value));
}

void atrace_int64_body(const char* name, int64_t value) {
    char buf[1024];
    emit(buf, snprintf(buf, sizeof(buf), "C|%d|%s|%" PRId64, getpid(), name, value));
}
