#pragma once
#include <android/log.h>

#ifndef LOG_TAG
#define LOG_TAG NULL
#endif

// No ALOGV/SLOGV: orvd logs nothing at verbose level, so the LOG_NDEBUG rules of a device
// build have nothing to stand in for.
#define ALOGD(...) ((void)__android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, __VA_ARGS__))
#define ALOGI(...) ((void)__android_log_print(ANDROID_LOG_INFO, LOG_TAG, __VA_ARGS__))
#define ALOGW(...) ((void)__android_log_print(ANDROID_LOG_WARN, LOG_TAG, __VA_ARGS__))
#define ALOGE(...) ((void)__android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__))
#define SLOGD ALOGD
#define SLOGI ALOGI
#define SLOGW ALOGW
#define SLOGE ALOGE
