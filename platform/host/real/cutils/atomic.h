#pragma once
// What AOSP's SocketClient.h needs of <cutils/atomic.h>, for a host C++ build: the platform's
// header pulls in C11 <stdatomic.h>, which clashes with libstdc++'s <atomic>.
#include <stdint.h>

static inline void android_atomic_release_store(int32_t value, volatile int32_t* addr) {
    __atomic_store_n(addr, value, __ATOMIC_RELEASE);
}
