#pragma once
#include <android/log.h>

#ifndef LOG_TAG
#define LOG_TAG NULL
#endif

// AOSP's own libsysutils logs at verbose level (check-real-platform builds it against this
// header). As on a device, verbose records exist only where LOG_NDEBUG is 0 (the default without
// NDEBUG); otherwise the arguments are still checked but never evaluated.
#ifndef LOG_NDEBUG
#ifdef NDEBUG
#define LOG_NDEBUG 1
#else
#define LOG_NDEBUG 0
#endif
#endif
#if LOG_NDEBUG
#define ALOGV(...)                                                             \
    do {                                                                       \
        if (0) __android_log_print(ANDROID_LOG_VERBOSE, LOG_TAG, __VA_ARGS__); \
    } while (0)
#else
#define ALOGV(...) ((void)__android_log_print(ANDROID_LOG_VERBOSE, LOG_TAG, __VA_ARGS__))
#endif
#define ALOGD(...) ((void)__android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, __VA_ARGS__))
#define ALOGI(...) ((void)__android_log_print(ANDROID_LOG_INFO, LOG_TAG, __VA_ARGS__))
#define ALOGW(...) ((void)__android_log_print(ANDROID_LOG_WARN, LOG_TAG, __VA_ARGS__))
#define ALOGE(...) ((void)__android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__))
#define SLOGV ALOGV
#define SLOGD ALOGD
#define SLOGI ALOGI
#define SLOGW ALOGW
#define SLOGE ALOGE
