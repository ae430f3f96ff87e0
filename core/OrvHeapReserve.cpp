#include "core/OrvHeapReserve.h"

#include <malloc.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#if !defined(MADV_POPULATE_WRITE)
#define MADV_POPULATE_WRITE 23
#endif

namespace {

// Below this a parse takes few enough pages that faulting them in is cheaper than the calls.
constexpr size_t kMinBytes = 256 * 1024;
// glibc refuses a larger mmap threshold.
constexpr size_t kMaxBytes = 24 * 1024 * 1024;
// glibc's own defaults, which it starts from and we go back to.
constexpr int kDefaultThreshold = 128 * 1024;

}  // namespace

OrvHeapReserve::OrvHeapReserve(size_t bytes) {
#if defined(__GLIBC__) && defined(M_MMAP_THRESHOLD) && defined(M_TRIM_THRESHOLD)
    if (bytes < kMinBytes) return;
    if (bytes > kMaxBytes) bytes = kMaxBytes;
    // Served from the heap rather than a mapping of its own, and left there once freed, so that
    // the parse's small allocations are cut from pages that are already resident.
    if (mallopt(M_MMAP_THRESHOLD, static_cast<int>(bytes + kMinBytes)) != 1) return;
    mallopt(M_TRIM_THRESHOLD, static_cast<int>(bytes) * 2);
    mActive = true;
    void* block = malloc(bytes);
    if (block == nullptr) return;
    const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(block) + page - 1) & ~(page - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(block) + bytes) & ~(page - 1);
    // Kernels before 5.14 refuse this; the pages then fault in as they would have anyway.
    if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_POPULATE_WRITE);
    free(block);
#else
    (void)bytes;
#endif
}

OrvHeapReserve::~OrvHeapReserve() {
#if defined(__GLIBC__) && defined(M_MMAP_THRESHOLD) && defined(M_TRIM_THRESHOLD)
    if (!mActive) return;
    mallopt(M_MMAP_THRESHOLD, kDefaultThreshold);
    mallopt(M_TRIM_THRESHOLD, kDefaultThreshold);
    // What the parse did not use, and the text it has freed, go back to the system now rather
    // than staying resident for the daemon's life.
    malloc_trim(0);
#endif
}
