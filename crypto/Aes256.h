#pragma once
#include <stdint.h>

// Compact AES-256 (decryption only): no stored tables, round keys derived per block.
struct aes256_context {
    uint8_t key[32];     // working round key
    uint8_t enckey[32];  // the cipher key
    uint8_t deckey[32];  // last pair of round keys, the starting point of every block
};

void aes256_init(aes256_context* ctx, const uint8_t key[32]);
void aes256_decrypt_ecb(aes256_context* ctx, uint8_t block[16]);
void aes256_done(aes256_context* ctx);
