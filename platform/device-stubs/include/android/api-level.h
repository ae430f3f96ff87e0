#pragma once
// Bionic's <android/api-level.h>, which GoogleTest includes on Android; only the device-flag
// compile uses this.
#define __ANDROID_API_FUTURE__ 10000
#ifndef __ANDROID_API__
#define __ANDROID_API__ __ANDROID_API_FUTURE__
#endif
