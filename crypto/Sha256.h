#pragma once
#include <stddef.h>
#include <stdint.h>

struct sha256_context {
    uint32_t state[8];
    uint64_t bitLength;  // message bytes absorbed so far, in bits
    uint8_t block[64];   // partial input block
    uint32_t blockLength;
};

void sha256_init(sha256_context* ctx);
void sha256_update(sha256_context* ctx, const void* data, size_t length);
void sha256_final(sha256_context* ctx, uint8_t digest[32]);
