#include "crypto/Aes256.h"

#include <string.h>

#include <utility>

namespace {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "columns are read as little-endian words");

// Sixteen bytes that advance together. GCC and clang lower these to SSE2 on x86 and NEON on
// ARM, and to plain byte loops where neither exists. Wider vectors would be split into scalar
// code without AVX, so more lanes are more vectors. The block is four columns of four bytes, so
// the same register seen as four words moves whole columns.
typedef uint8_t Lanes __attribute__((vector_size(16)));
typedef int8_t SignedLanes __attribute__((vector_size(16)));
typedef uint32_t Words __attribute__((vector_size(16)));

inline Lanes bytes(Words w) {
    return reinterpret_cast<Lanes>(w);
}

inline Words words(Lanes b) {
    return reinterpret_cast<Words>(b);
}

inline Lanes xtime(Lanes x) {
    return (x + x) ^ (reinterpret_cast<Lanes>(reinterpret_cast<SignedLanes>(x) < 0) & 0x1b);
}

inline Lanes mul3(Lanes x) {
    return x ^ xtime(x);
}

// 3 generates the multiplicative group, so x = 3^L and its inverse is 3^-L. Every lane walks
// x * 3^k; at step k it meets a fixed point 3^e exactly when 3^(k - e) is its inverse, and each
// fixed point's candidate starts at 3^-e and walks alongside. kPoints fixed points, 15 or 16
// apart round the group, shorten the walk to kSteps, the same for every lane and every value,
// and every step looks at every candidate: nothing is indexed by data. A zero lane meets no
// fixed point and keeps the inverse AES gives it, 0.
constexpr int kPoints = 16, kSteps = 16;

#if defined(__ARM_NEON)
// NEON spreads any byte over all lanes in one instruction (DUP): one register holds them all.
constexpr int kPerRegister = 16;
#else
// SSE2 spreads a 32-bit word in one instruction (PSHUFD), not a byte: one candidate per column.
constexpr int kPerRegister = 4;
#endif
constexpr int kRegisters = kPoints / kPerRegister, kWidth = 16 / kPerRegister;

typedef uint16_t Pairs __attribute__((vector_size(16)));

// Each lane of the low or high half of v twice over, side by side: the interleaving unpacks
// that SSE2 has, where a general byte shuffle would be taken apart byte by byte.
template <int High, int... I>
inline Lanes twice(Lanes v, std::integer_sequence<int, I...>) {
    return __builtin_shufflevector(v, v, (High * 8 + I / 2 + I % 2 * 16)...);
}

template <int High, int... I>
inline Pairs twice(Pairs v, std::integer_sequence<int, I...>) {
    return __builtin_shufflevector(v, v, (High * 4 + I / 2 + I % 2 * 8)...);
}

// Lane t of v (t < kPoints) kWidth lanes wide, in register G = t / kPerRegister.
template <int G>
inline Lanes spreadRegister(Lanes v) {
    static_assert(kWidth == 1 || kWidth == 4, "lanes spread by doubling twice");
    if constexpr (kWidth == 1) {
        return v;
    } else {
        const Lanes doubled = twice<G / 2>(v, std::make_integer_sequence<int, 16>{});
        return reinterpret_cast<Lanes>(
            twice<G % 2>(reinterpret_cast<Pairs>(doubled), std::make_integer_sequence<int, 8>{}));
    }
}

// Value T over all lanes, from registers laid out as above.
template <int T>
inline Lanes spread(const Lanes* registers) {
    const Lanes c = registers[T / kPerRegister];
    if constexpr (kWidth == 1) {
        return __builtin_shufflevector(c, c, T, T, T, T, T, T, T, T, T, T, T, T, T, T, T, T);
    } else {
        constexpr int j = T % kPerRegister;
        return bytes(__builtin_shufflevector(words(c), words(c), j, j, j, j));
    }
}

// The fixed points and the candidates' starting values, found again from the generator for every
// block (and the key set-up) and kept on its stack: none of them is written in the code.
struct Landmarks {
    Lanes points[kPoints];         // fixed point t, 3^(241 - 16t), over all lanes
    Lanes candidates[kRegisters];  // candidate t, 3^(16t + 14), laid out for spread<t>
};

// x * x by Horner's rule over the bits of x, highest first: double the sum, add x for a one.
inline Lanes square(Lanes x) {
    Lanes sum = {}, bits = x;
#pragma GCC unroll 8
    for (int i = 0; i < 8; ++i) {
        const Lanes one = reinterpret_cast<Lanes>(reinterpret_cast<SignedLanes>(bits) < 0);
        sum = xtime(sum) ^ (x & one);
        bits += bits;
    }
    return sum;
}

// Fixed point t is lane 15 - t of `points`, so that candidate t, its inverse, is lane t of
// `starts`.
template <int... T, int... G>
inline void place(Landmarks& m, Lanes points, Lanes starts, std::integer_sequence<int, T...>,
                  std::integer_sequence<int, G...>) {
    const Lanes spreadPoints[kRegisters] = {spreadRegister<G>(points)...};
    ((m.points[T] = spread<kPoints - 1 - T>(spreadPoints)), ...);
    ((m.candidates[G] = spreadRegister<G>(starts)), ...);
}

// Lane t walks from the generator to 3^(16 + t), and four squarings raise that to the 16th
// power, 3^(256 + 16t) = 3^(16t + 1): the fixed points. 13 steps further each is the inverse of
// another, 3^(16t + 14) = 3^-(16 (15 - t) + 1). Short walks side by side rather than one round
// the whole group, since every block waits for this.
void findLandmarks(Landmarks& m) {
    static_assert(kSteps == 16 && kPoints == 16, "four squarings, four bits of t");
    constexpr Lanes lane = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
    // Read at run time, so that the compiler cannot take these walks itself and store the result.
    volatile uint8_t generator = 3;
    Lanes p = Lanes{} + generator;
#pragma GCC unroll 16
    for (int k = 1; k < kSteps; ++k) p = mul3(p);
#pragma GCC unroll 4
    for (int bit = 1; bit < kPoints; bit <<= 1) {
        Lanes further = p;
#pragma GCC unroll 8
        for (int k = 0; k < bit; ++k) further = mul3(further);
        const Lanes ahead = reinterpret_cast<Lanes>((lane & uint8_t(bit)) != 0);
        p = (further & ahead) | (p & ~ahead);
    }
#pragma GCC unroll 4
    for (int n = 1; n < kSteps; n <<= 1) p = square(p);
    Lanes starts = p;
#pragma GCC unroll 16
    for (int k = 0; k < 13; ++k) starts = mul3(starts);
    place(m, p, starts, std::make_integer_sequence<int, kPoints>{},
          std::make_integer_sequence<int, kRegisters>{});
}

template <int T>
inline void take(const Landmarks& m, Lanes walk, Lanes candidate, Lanes& inverse) {
    const Lanes match = reinterpret_cast<Lanes>(walk == m.points[T]);
#if defined(__ARM_NEON)
    // A bitwise select (BSL) is one instruction where AND and ORR are two.
    inverse = match ? candidate : inverse;
#else
    // Without a select instruction OR is cheaper: two candidates never differ on a match.
    inverse |= match & candidate;
#endif
}

template <int V, int... T>
inline void matchAll(const Landmarks& m, const Lanes* candidates, const Lanes* walk, Lanes* inverse,
                     std::integer_sequence<int, T...>) {
#pragma GCC unroll 4
    for (int v = 0; v < V; ++v) (take<T>(m, walk[v], spread<T>(candidates), inverse[v]), ...);
}

template <int V>
void gfInverseLanes(const Landmarks& m, Lanes* x) {
    Lanes candidates[kRegisters], inverse[V] = {}, walk[V];
    for (int g = 0; g < kRegisters; ++g) candidates[g] = m.candidates[g];
    for (int v = 0; v < V; ++v) walk[v] = x[v];
    for (int k = 0; k < kSteps; ++k) {
        matchAll<V>(m, candidates, walk, inverse, std::make_integer_sequence<int, kPoints>{});
#pragma GCC unroll 4
        for (int g = 0; g < kRegisters; ++g) candidates[g] = mul3(candidates[g]);
#pragma GCC unroll 4
        for (int v = 0; v < V; ++v) walk[v] = mul3(walk[v]);
    }
    for (int v = 0; v < V; ++v) x[v] = inverse[v];
}

template <int N>
inline Lanes rotl8(Lanes x) {
    return (x << N) | (x >> (8 - N));
}

inline Lanes affine(Lanes b) {
    return b ^ rotl8<1>(b) ^ rotl8<2>(b) ^ rotl8<3>(b) ^ rotl8<4>(b) ^ 0x63;
}

inline Lanes invAffine(Lanes x) {
    return rotl8<1>(x) ^ rotl8<3>(x) ^ rotl8<6>(x) ^ 0x05;
}

// Byte r of every column takes byte r + N of the same column.
template <int N>
inline Words columnBytesFrom(Words w) {
    return (w >> (8 * N)) | (w << (32 - 8 * N));
}

// Column c of the result is column c - 1 of the input, column 0 zero.
inline Words wordsUp(Words w) {
    return __builtin_shufflevector(w, Words{}, 4, 0, 1, 2);
}

// Row r was rotated left by r columns when enciphering.
inline Lanes invShiftRows(Lanes b) {
    const Words w = words(b);
    return bytes((w & 0x000000ffu) | (__builtin_shufflevector(w, w, 3, 0, 1, 2) & 0x0000ff00u) |
                 (__builtin_shufflevector(w, w, 2, 3, 0, 1) & 0x00ff0000u) |
                 (__builtin_shufflevector(w, w, 1, 2, 3, 0) & 0xff000000u));
}

// Fixed doubling chains: 9, 11, 13 and 14 times a are sums of a, 2a, 4a and 8a.
inline Lanes invMixColumns(Lanes a) {
    const Lanes a2 = xtime(a), a4 = xtime(a2), a8 = xtime(a4);
    const Lanes x9 = a8 ^ a, x11 = x9 ^ a2, x13 = x9 ^ a4, x14 = a8 ^ a4 ^ a2;
    return x14 ^ bytes(columnBytesFrom<1>(words(x11)) ^ columnBytesFrom<2>(words(x13)) ^
                       columnBytesFrom<3>(words(x9)));
}

inline Lanes load(const uint8_t* p) {
    Lanes v;
    memcpy(&v, p, sizeof(v));
    return v;
}

inline void store(uint8_t* p, Lanes v) {
    memcpy(p, &v, sizeof(v));
}

// Only the set-up, once per key, takes S-box values one at a time.
uint8_t sbox(const Landmarks& m, uint8_t x) {
    Lanes lanes[1] = {{x}};
    gfInverseLanes<1>(m, lanes);
    return affine(lanes[0])[0];
}

uint8_t xtime(uint8_t x) {
    return static_cast<uint8_t>((x << 1) ^ ((x & 0x80) ? 0x1b : 0x00));
}

// The schedule advances 32 bytes (two round keys) per step.
void expandKeyForward(const Landmarks& m, uint8_t k[32], uint8_t& rcon) {
    k[0] ^= sbox(m, k[29]) ^ rcon;
    k[1] ^= sbox(m, k[30]);
    k[2] ^= sbox(m, k[31]);
    k[3] ^= sbox(m, k[28]);
    rcon = xtime(rcon);
    for (int i = 4; i < 16; ++i) k[i] ^= k[i - 4];
    for (int i = 16; i < 20; ++i) k[i] ^= sbox(m, k[i - 4]);
    for (int i = 20; i < 32; ++i) k[i] ^= k[i - 4];
}

// The S-box inputs of one backward key step in words 0 and 1: bytes 12..15, and 28..31 once
// brought back a generation. Words 2 and 3 hold those of the step after it; they need none of
// this step's S-box values, so one walk serves two steps.
inline Words keyStepInputs(Words low, Words high) {
    const Words notFirst = {0, ~0u, ~0u, ~0u};
    return __builtin_shufflevector(low, high, 3, 7, 3, 7) ^
           (__builtin_shufflevector(low, high, 0, 6, 2, 5) & notFirst);
}

// Exact inverse of expandKeyForward, given the S-box values of bytes 12..15 in word 0 of `sub`
// and of bytes 28..31, brought back a generation, in word 1.
inline void expandKeyBackward(Words& low, Words& high, Words sub, uint32_t rcon) {
    high ^= wordsUp(high) ^ __builtin_shufflevector(sub, Words{}, 0, 4, 4, 4);
    low ^= wordsUp(low);
    const Words last = __builtin_shufflevector(sub, Words{}, 1, 4, 4, 4);
    const Words roundConstant = {rcon, 0, 0, 0};
    low ^= ((last >> 8) | (last << 24)) ^ roundConstant;
}

inline Lanes invShiftSubBytes(const Landmarks& m, Lanes block) {
    Lanes lanes[1] = {invAffine(invShiftRows(block))};
    gfInverseLanes<1>(m, lanes);
    return lanes[0];
}

}  // namespace

void aes256_init(aes256_context* ctx, const uint8_t key[32]) {
    Landmarks m;
    findLandmarks(m);
    uint8_t rcon = 1;
    for (int i = 0; i < 32; ++i) ctx->enckey[i] = ctx->deckey[i] = key[i];
    // 15 round keys of 16 bytes: seven 32-byte steps reach the pair holding the last one.
    for (int step = 0; step < 7; ++step) expandKeyForward(m, ctx->deckey, rcon);
}

void aes256_decrypt_ecb(aes256_context* ctx, uint8_t block[16]) {
    Landmarks m;
    findLandmarks(m);
    uint32_t rcon = 0x80;
    Words low = words(load(ctx->deckey)), high = words(load(ctx->deckey + 16)), nextSub = {};
    Lanes b = load(block) ^ bytes(low);  // round key 14
    for (int round = 13; round >= 1; --round) {
        // Every odd round brings the key back one step; rounds 13, 9, 5 and 1 walk for the S-box
        // values of that step and the next together with the block's.
        if (round % 4 == 1) {
            Lanes lanes[2] = {invAffine(invShiftRows(b)), bytes(keyStepInputs(low, high))};
            gfInverseLanes<2>(m, lanes);
            const Words sub = words(affine(lanes[1]));
            nextSub = __builtin_shufflevector(sub, sub, 2, 3, 2, 3);
            expandKeyBackward(low, high, sub, rcon >>= 1);
            b = lanes[0] ^ bytes(high);
        } else if (round % 4 == 3) {
            b = invShiftSubBytes(m, b);
            expandKeyBackward(low, high, nextSub, rcon >>= 1);
            b ^= bytes(high);
        } else {
            b = invShiftSubBytes(m, b) ^ bytes(low);
        }
        b = invMixColumns(b);
    }
    b = invShiftSubBytes(m, b) ^ bytes(low);  // round key 0, the cipher key itself
    store(block, b);
    store(ctx->key, bytes(low));
    store(ctx->key + 16, bytes(high));
}

void aes256_done(aes256_context* ctx) {
    volatile uint8_t* p = reinterpret_cast<volatile uint8_t*>(ctx);
    for (unsigned i = 0; i < sizeof(*ctx); ++i) p[i] = 0;
}
