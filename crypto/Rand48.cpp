#include "crypto/Rand48.h"

namespace orv {

namespace {

constexpr uint64_t kMultiplier = 0x5DEECE66DULL;
constexpr uint64_t kIncrement = 0xB;
constexpr uint64_t kMask48 = (1ULL << 48) - 1;

// Unlocked on purpose: seeding and the draws that follow run on one thread.
unsigned short gState[3] = {0x330E, 0, 0};

uint64_t step(unsigned short x[3]) {
    uint64_t s = uint64_t(x[0]) | (uint64_t(x[1]) << 16) | (uint64_t(x[2]) << 32);
    s = (kMultiplier * s + kIncrement) & kMask48;
    x[0] = static_cast<unsigned short>(s);
    x[1] = static_cast<unsigned short>(s >> 16);
    x[2] = static_cast<unsigned short>(s >> 32);
    return s;
}

}  // namespace

void isrand(uint32_t seed) {
    gState[0] = 0x330E;
    gState[1] = static_cast<unsigned short>(seed);
    gState[2] = static_cast<unsigned short>(seed >> 16);
}

int32_t irand() {
    return static_cast<int32_t>(step(gState) >> 17);
}

void srand48(long seed) {
    isrand(static_cast<uint32_t>(seed));
}

long lrand48() {
    return irand();
}

long mrand48() {
    return static_cast<int32_t>(static_cast<uint32_t>(step(gState) >> 16));
}

long jrand48(unsigned short xsubi[3]) {
    return static_cast<int32_t>(static_cast<uint32_t>(step(xsubi) >> 16));
}

}  // namespace orv
