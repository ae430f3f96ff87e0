#pragma once
#include <stdint.h>

// The 48-bit linear congruential family over one process-wide state. Kept in a namespace so
// that it never shadows the C library's functions of the same names.
namespace orv {

void isrand(uint32_t seed);
int32_t irand();  // 0 .. 2^31 - 1

void srand48(long seed);
long lrand48();
long mrand48();
long jrand48(unsigned short xsubi[3]);

}  // namespace orv
