#include "crypto/Aes256.h"

namespace {

uint8_t xtime(uint8_t x) {
    return static_cast<uint8_t>((x << 1) ^ ((x & 0x80) ? 0x1b : 0x00));
}

uint8_t gfMul(uint8_t a, uint8_t b) {
    uint8_t r = 0;
    while (b) {
        if (b & 1) r ^= a;
        a = xtime(a);
        b >>= 1;
    }
    return r;
}

uint8_t mul3(uint8_t x) {
    return xtime(x) ^ x;
}

// 3 generates the multiplicative group: walking x * 3^k and 3^k together, the first reaches 1
// exactly when the second is the inverse of x.
uint8_t gfInverse(uint8_t x) {
    if (x == 0) return 0;
    uint8_t power = 1;
    while (x != 1) {
        x = mul3(x);
        power = mul3(power);
    }
    return power;
}

uint8_t rotl8(uint8_t x, int n) {
    return static_cast<uint8_t>((x << n) | (x >> (8 - n)));
}

uint8_t sbox(uint8_t x) {
    uint8_t b = gfInverse(x);
    return b ^ rotl8(b, 1) ^ rotl8(b, 2) ^ rotl8(b, 3) ^ rotl8(b, 4) ^ 0x63;
}

uint8_t invSbox(uint8_t x) {
    return gfInverse(rotl8(x, 1) ^ rotl8(x, 3) ^ rotl8(x, 6) ^ 0x05);
}

// The schedule advances 32 bytes (two round keys) per step.
void expandKeyForward(uint8_t k[32], uint8_t& rcon) {
    k[0] ^= sbox(k[29]) ^ rcon;
    k[1] ^= sbox(k[30]);
    k[2] ^= sbox(k[31]);
    k[3] ^= sbox(k[28]);
    rcon = xtime(rcon);
    for (int i = 4; i < 16; ++i) k[i] ^= k[i - 4];
    for (int i = 16; i < 20; ++i) k[i] ^= sbox(k[i - 4]);
    for (int i = 20; i < 32; ++i) k[i] ^= k[i - 4];
}

// Exact inverse of expandKeyForward; walks from the high bytes down so that every byte it
// needs is still (or already) the right generation.
void expandKeyBackward(uint8_t k[32], uint8_t& rcon) {
    for (int i = 31; i >= 20; --i) k[i] ^= k[i - 4];
    for (int i = 19; i >= 16; --i) k[i] ^= sbox(k[i - 4]);
    for (int i = 15; i >= 4; --i) k[i] ^= k[i - 4];
    rcon >>= 1;
    k[0] ^= sbox(k[29]) ^ rcon;
    k[1] ^= sbox(k[30]);
    k[2] ^= sbox(k[31]);
    k[3] ^= sbox(k[28]);
}

void addRoundKey(uint8_t block[16], const uint8_t* roundKey) {
    for (int i = 0; i < 16; ++i) block[i] ^= roundKey[i];
}

void invShiftRowsSubBytes(uint8_t b[16]) {
    uint8_t t[16];
    for (int col = 0; col < 4; ++col) {
        for (int row = 0; row < 4; ++row) {
            // Row r was rotated left by r columns when enciphering.
            t[4 * ((col + row) % 4) + row] = invSbox(b[4 * col + row]);
        }
    }
    for (int i = 0; i < 16; ++i) b[i] = t[i];
}

void invMixColumns(uint8_t b[16]) {
    for (int col = 0; col < 4; ++col) {
        uint8_t* c = b + 4 * col;
        uint8_t a0 = c[0], a1 = c[1], a2 = c[2], a3 = c[3];
        c[0] = gfMul(a0, 14) ^ gfMul(a1, 11) ^ gfMul(a2, 13) ^ gfMul(a3, 9);
        c[1] = gfMul(a0, 9) ^ gfMul(a1, 14) ^ gfMul(a2, 11) ^ gfMul(a3, 13);
        c[2] = gfMul(a0, 13) ^ gfMul(a1, 9) ^ gfMul(a2, 14) ^ gfMul(a3, 11);
        c[3] = gfMul(a0, 11) ^ gfMul(a1, 13) ^ gfMul(a2, 9) ^ gfMul(a3, 14);
    }
}

}  // namespace

void aes256_init(aes256_context* ctx, const uint8_t key[32]) {
    uint8_t rcon = 1;
    for (int i = 0; i < 32; ++i) ctx->enckey[i] = ctx->deckey[i] = key[i];
    // 15 round keys of 16 bytes: seven 32-byte steps reach the pair holding the last one.
    for (int step = 0; step < 7; ++step) expandKeyForward(ctx->deckey, rcon);
}

void aes256_decrypt_ecb(aes256_context* ctx, uint8_t block[16]) {
    uint8_t rcon = 0x80;
    for (int i = 0; i < 32; ++i) ctx->key[i] = ctx->deckey[i];
    addRoundKey(block, ctx->key);  // round key 14
    for (int round = 13; round >= 1; --round) {
        invShiftRowsSubBytes(block);
        if (round & 1) {
            expandKeyBackward(ctx->key, rcon);
            addRoundKey(block, ctx->key + 16);
        } else {
            addRoundKey(block, ctx->key);
        }
        invMixColumns(block);
    }
    invShiftRowsSubBytes(block);
    addRoundKey(block, ctx->key);  // round key 0, the cipher key itself
}

void aes256_done(aes256_context* ctx) {
    volatile uint8_t* p = reinterpret_cast<volatile uint8_t*>(ctx);
    for (unsigned i = 0; i < sizeof(*ctx); ++i) p[i] = 0;
}
