#include "crypto/Aes256.h"

namespace {

// Sixteen bytes that advance together. GCC and clang lower these to SSE2 on x86 and NEON on
// ARM, and to plain byte loops where neither exists. Wider vectors would be split into scalar
// code without AVX, so more lanes are more vectors.
typedef uint8_t Lanes __attribute__((vector_size(16)));
typedef int8_t SignedLanes __attribute__((vector_size(16)));

inline Lanes mul3(Lanes x) {
    Lanes carry = reinterpret_cast<Lanes>(reinterpret_cast<SignedLanes>(x) < 0) & 0x1b;
    return x ^ (x + x) ^ carry;
}

// 3 generates the multiplicative group: walking x * 3^k and 3^k together, the first reaches 1
// exactly when the second is the inverse of x. Every lane takes the same 255 steps, so one walk
// serves them all; a zero lane never reaches 1 and keeps the inverse AES gives it, 0.
template <int N>
void gfInverseLanes(Lanes* x) {
    const Lanes zero = {}, one = zero + 1;
    Lanes power = one, inverse[N];
    for (int v = 0; v < N; ++v) inverse[v] = zero;
    for (int k = 0; k < 255; ++k) {
        for (int v = 0; v < N; ++v) {
            inverse[v] |= reinterpret_cast<Lanes>(x[v] == one) & power;
            x[v] = mul3(x[v]);
        }
        power = mul3(power);
    }
    for (int v = 0; v < N; ++v) x[v] = inverse[v];
}

uint8_t xtime(uint8_t x) {
    return static_cast<uint8_t>((x << 1) ^ ((x & 0x80) ? 0x1b : 0x00));
}

uint8_t rotl8(uint8_t x, int n) {
    return static_cast<uint8_t>((x << n) | (x >> (8 - n)));
}

uint8_t affine(uint8_t b) {
    return b ^ rotl8(b, 1) ^ rotl8(b, 2) ^ rotl8(b, 3) ^ rotl8(b, 4) ^ 0x63;
}

uint8_t invAffine(uint8_t x) {
    return rotl8(x, 1) ^ rotl8(x, 3) ^ rotl8(x, 6) ^ 0x05;
}

// Only the set-up, once per key, takes S-box values one at a time.
uint8_t sbox(uint8_t x) {
    Lanes lanes[1] = {{x}};
    gfInverseLanes<1>(lanes);
    return affine(lanes[0][0]);
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

// Exact inverse of expandKeyForward, in two halves around the S-box values it needs: the first
// brings bytes 20..31 back one generation; those values are then k[12..15] (not yet touched)
// and k[28..31], and `sub` holds their S-box values in that order.
void expandKeyBackwardHigh(uint8_t k[32]) {
    for (int i = 31; i >= 20; --i) k[i] ^= k[i - 4];
}

void expandKeyBackwardLow(uint8_t k[32], uint8_t& rcon, const uint8_t sub[8]) {
    for (int i = 19; i >= 16; --i) k[i] ^= sub[i - 16];
    for (int i = 15; i >= 4; --i) k[i] ^= k[i - 4];
    rcon >>= 1;
    k[0] ^= sub[5] ^ rcon;
    k[1] ^= sub[6];
    k[2] ^= sub[7];
    k[3] ^= sub[4];
}

void addRoundKey(uint8_t block[16], const uint8_t* roundKey) {
    for (int i = 0; i < 16; ++i) block[i] ^= roundKey[i];
}

// Inverse ShiftRows and SubBytes of the block; with `k` (odd rounds) also the eight S-box
// values of the backward key step, from the same walk.
void invShiftRowsSubBytes(uint8_t b[16], uint8_t* k, uint8_t sub[8]) {
    Lanes lanes[2] = {};
    for (int col = 0; col < 4; ++col) {
        for (int row = 0; row < 4; ++row) {
            // Row r was rotated left by r columns when enciphering.
            lanes[0][4 * ((col + row) % 4) + row] = invAffine(b[4 * col + row]);
        }
    }
    if (k) {
        for (int i = 0; i < 4; ++i) {
            lanes[1][i] = k[12 + i];
            lanes[1][4 + i] = k[28 + i];
        }
        gfInverseLanes<2>(lanes);
        for (int i = 0; i < 8; ++i) sub[i] = affine(lanes[1][i]);
    } else {
        gfInverseLanes<1>(lanes);
    }
    for (int i = 0; i < 16; ++i) b[i] = lanes[0][i];
}

// Fixed doubling chains: 9, 11, 13 and 14 times a are sums of a, 2a, 4a and 8a.
void invMixColumns(uint8_t b[16]) {
    for (int col = 0; col < 4; ++col) {
        uint8_t* c = b + 4 * col;
        uint8_t a[4], x2[4], x9[4], x11[4], x13[4], x14[4];
        for (int r = 0; r < 4; ++r) {
            a[r] = c[r];
            x2[r] = xtime(a[r]);
            uint8_t x4 = xtime(x2[r]), x8 = xtime(x4);
            x9[r] = x8 ^ a[r];
            x11[r] = x9[r] ^ x2[r];
            x13[r] = x9[r] ^ x4;
            x14[r] = x8 ^ x4 ^ x2[r];
        }
        for (int r = 0; r < 4; ++r) {
            c[r] = x14[r] ^ x11[(r + 1) % 4] ^ x13[(r + 2) % 4] ^ x9[(r + 3) % 4];
        }
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
    uint8_t sub[8];
    for (int i = 0; i < 32; ++i) ctx->key[i] = ctx->deckey[i];
    addRoundKey(block, ctx->key);  // round key 14
    for (int round = 13; round >= 1; --round) {
        if (round & 1) {
            expandKeyBackwardHigh(ctx->key);
            invShiftRowsSubBytes(block, ctx->key, sub);
            expandKeyBackwardLow(ctx->key, rcon, sub);
            addRoundKey(block, ctx->key + 16);
        } else {
            invShiftRowsSubBytes(block, nullptr, sub);
            addRoundKey(block, ctx->key);
        }
        invMixColumns(block);
    }
    invShiftRowsSubBytes(block, nullptr, sub);
    addRoundKey(block, ctx->key);  // round key 0, the cipher key itself
}

void aes256_done(aes256_context* ctx) {
    volatile uint8_t* p = reinterpret_cast<volatile uint8_t*>(ctx);
    for (unsigned i = 0; i < sizeof(*ctx); ++i) p[i] = 0;
}
