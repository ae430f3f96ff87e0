#include <gtest/gtest.h>
#include <malloc.h>
#include <stdlib.h>
#include <sys/resource.h>

#include <vector>

#include "core/OrvHeapReserve.h"

namespace {

long minorFaults() {
    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_minflt;
}

// Page faults taken while filling `bytes` of heap in small pieces, as a parse does.
long faultsFilling(size_t bytes, std::vector<void*>& blocks) {
    const long before = minorFaults();
    for (size_t done = 0; done < bytes; done += 96) {
        char* p = static_cast<char*>(malloc(80));
        p[0] = 1;
        p[79] = 1;
        blocks.push_back(p);
    }
    return minorFaults() - before;
}

void freeAll(std::vector<void*>& blocks) {
    for (void* p : blocks) free(p);
    blocks.clear();
}

}  // namespace

#if defined(__GLIBC__)
TEST(HeapReserve, PiecesOfAParseComeFromResidentPagesAndTheRestGoesBack) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's allocator replaces glibc's heap";
#endif
    const size_t bytes = 8 << 20;
    std::vector<void*> blocks;
    blocks.reserve(bytes / 96 * 2);
    // Without a reserve every fresh page of heap is a fault of its own.
    const long plain = faultsFilling(bytes, blocks);
    ASSERT_GT(plain, 1000) << "the allocator reused memory; cannot compare";
    freeAll(blocks);
    malloc_trim(0);

    // The text a parse reads comes first.
    long reserved;
    void* text;
    {
        OrvHeapReserve reserve(bytes + (1 << 20));
        text = malloc(512 << 10);
        reserved = faultsFilling(bytes, blocks);
    }
    EXPECT_LT(reserved, plain / 10) << "without the reserve: " << plain;
    // What the reserve took beyond the parse has gone back to the system.
    EXPECT_LT(mallinfo2().keepcost, size_t(512 << 10));
    free(text);
    freeAll(blocks);
}
#endif
