#pragma once
// Android's <cutils/trace.h> on a Linux host: the same macros and functions, writing the same
// text records ("B|pid|name", "E|pid", "C|pid|name|value") to tracefs' trace_marker for the tags
// named in "debug.atrace.tags.enableflags" while the kernel is tracing. Without a writable
// trace_marker every check is one atomic load.
#include <stdint.h>

#define ATRACE_TAG_NEVER 0
#define ATRACE_TAG_ALWAYS (1 << 0)
#define ATRACE_TAG_GRAPHICS (1 << 1)
#define ATRACE_TAG_INPUT (1 << 2)
#define ATRACE_TAG_VIEW (1 << 3)
#define ATRACE_TAG_ACTIVITY_MANAGER (1 << 6)
#define ATRACE_TAG_HAL (1 << 11)
#define ATRACE_TAG_POWER (1 << 17)
#define ATRACE_TAG_LAST ATRACE_TAG_POWER
#define ATRACE_TAG_VALID_MASK ((ATRACE_TAG_LAST - 1) | ATRACE_TAG_LAST)

#ifndef ATRACE_TAG
#define ATRACE_TAG ATRACE_TAG_NEVER
#elif ATRACE_TAG > ATRACE_TAG_VALID_MASK
#error ATRACE_TAG must be defined to be one of the tags defined in cutils/trace.h
#endif

#ifdef __cplusplus
extern "C" {
#endif

void atrace_init(void);
// The tags being traced now (re-read at most five times a second).
uint64_t atrace_get_enabled_tags(void);
void atrace_begin_body(const char* name);
void atrace_end_body(void);
void atrace_int_body(const char* name, int32_t value);
void atrace_int64_body(const char* name, int64_t value);

#ifdef __cplusplus
}
#endif

#define ATRACE_INIT() atrace_init()
#define ATRACE_GET_ENABLED_TAGS() atrace_get_enabled_tags()
#define ATRACE_ENABLED() atrace_is_tag_enabled(ATRACE_TAG)
#define ATRACE_BEGIN(name) atrace_begin(ATRACE_TAG, name)
#define ATRACE_END() atrace_end(ATRACE_TAG)
#define ATRACE_INT(name, value) atrace_int(ATRACE_TAG, name, value)
#define ATRACE_INT64(name, value) atrace_int64(ATRACE_TAG, name, value)

static inline uint64_t atrace_is_tag_enabled(uint64_t tag) {
    return atrace_get_enabled_tags() & tag;
}

static inline void atrace_begin(uint64_t tag, const char* name) {
    if (__builtin_expect(atrace_is_tag_enabled(tag) != 0, 0)) atrace_begin_body(name);
}

static inline void atrace_end(uint64_t tag) {
    if (__builtin_expect(atrace_is_tag_enabled(tag) != 0, 0)) atrace_end_body();
}

static inline void atrace_int(uint64_t tag, const char* name, int32_t value) {
    if (__builtin_expect(atrace_is_tag_enabled(tag) != 0, 0)) atrace_int_body(name, value);
}

static inline void atrace_int64(uint64_t tag, const char* name, int64_t value) {
    if (__builtin_expect(atrace_is_tag_enabled(tag) != 0, 0)) atrace_int64_body(name, value);
}
