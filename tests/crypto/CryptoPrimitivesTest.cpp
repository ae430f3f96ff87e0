#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <stdlib.h>
#include <string.h>

#include <random>
#include <string>
#include <vector>

#include "crypto/Aes256.h"
#include "crypto/Rand48.h"
#include "crypto/Sha256.h"

namespace {

std::vector<uint8_t> fromHex(const std::string& hex) {
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(strtoul(hex.substr(i, 2).c_str(), nullptr, 16)));
    }
    return out;
}

std::vector<uint8_t> ourSha(const std::string& msg) {
    sha256_context ctx;
    sha256_init(&ctx);
    sha256_update(&ctx, msg.data(), msg.size());
    std::vector<uint8_t> d(32);
    sha256_final(&ctx, d.data());
    return d;
}

std::vector<uint8_t> opensslAesDecrypt(const uint8_t key[32], const uint8_t* in, size_t len) {
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    std::vector<uint8_t> out(len + 16);
    int n = 0, tail = 0;
    EVP_DecryptInit_ex(ctx, EVP_aes_256_ecb(), nullptr, key, nullptr);
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    EVP_DecryptUpdate(ctx, out.data(), &n, in, static_cast<int>(len));
    EVP_DecryptFinal_ex(ctx, out.data() + n, &tail);
    EVP_CIPHER_CTX_free(ctx);
    out.resize(static_cast<size_t>(n + tail));
    return out;
}

TEST(Aes256Test, Fips197Example) {
    std::vector<uint8_t> key =
        fromHex("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f");
    std::vector<uint8_t> block = fromHex("8ea2b7ca516745bfeafc49904b496089");
    aes256_context ctx;
    memset(&ctx, 0, sizeof(ctx));
    aes256_init(&ctx, key.data());
    aes256_decrypt_ecb(&ctx, block.data());
    EXPECT_EQ(block, fromHex("00112233445566778899aabbccddeeff"));
    // The context must be reusable: a second block starts again from the last round key.
    std::vector<uint8_t> again = fromHex("8ea2b7ca516745bfeafc49904b496089");
    aes256_decrypt_ecb(&ctx, again.data());
    EXPECT_EQ(again, block);
}

TEST(Aes256Test, DoneZeroesTheWholeContext) {
    uint8_t key[32];
    for (int i = 0; i < 32; ++i) key[i] = static_cast<uint8_t>(0xA5 + i);
    uint8_t block[16] = {1, 2, 3};
    aes256_context ctx;
    memset(&ctx, 0, sizeof(ctx));
    aes256_init(&ctx, key);
    aes256_decrypt_ecb(&ctx, block);
    aes256_context zero;
    memset(&zero, 0, sizeof(zero));
    ASSERT_NE(memcmp(&ctx, &zero, sizeof(ctx)), 0);
    aes256_done(&ctx);
    EXPECT_EQ(memcmp(&ctx, &zero, sizeof(ctx)), 0);
}

TEST(Aes256Test, MatchesOpenSslOnRandomKeysAndBlocks) {
    std::mt19937 rng(20240611);
    for (int round = 0; round < 150; ++round) {
        uint8_t key[32];
        for (auto& b : key) b = static_cast<uint8_t>(rng());
        // Keys of all zeros and all ones walk the schedule's edge values.
        if (round == 0) memset(key, 0, sizeof(key));
        if (round == 1) memset(key, 0xff, sizeof(key));
        std::vector<uint8_t> data(16 * 3);
        for (auto& b : data) b = static_cast<uint8_t>(rng());
        std::vector<uint8_t> expected = opensslAesDecrypt(key, data.data(), data.size());
        aes256_context ctx;
        memset(&ctx, 0, sizeof(ctx));
        aes256_init(&ctx, key);
        for (size_t off = 0; off < data.size(); off += 16) aes256_decrypt_ecb(&ctx, &data[off]);
        aes256_done(&ctx);
        ASSERT_EQ(data, expected) << "round " << round;
    }
}

TEST(Sha256Test, Fips180Vectors) {
    struct Case {
        std::string msg;
        const char* digest;
    } cases[] = {
        {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
         "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        {std::string(1000000, 'a'),
         "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(ourSha(c.msg), fromHex(c.digest)) << "length " << c.msg.size();
    }
}

TEST(Sha256Test, PiecesGiveTheSameDigestAsOneUpdate) {
    std::mt19937 rng(7);
    // Lengths around the 55/56/64-byte padding boundaries plus a few longer ones.
    for (size_t len : {0u, 1u, 55u, 56u, 57u, 63u, 64u, 65u, 119u, 120u, 128u, 1000u, 4097u}) {
        std::string msg(len, '\0');
        for (auto& ch : msg) ch = static_cast<char>(rng());
        for (int split = 0; split < 20; ++split) {
            sha256_context ctx;
            sha256_init(&ctx);
            size_t pos = 0;
            while (pos < len) {
                size_t piece = std::min<size_t>(len - pos, rng() % 80);
                sha256_update(&ctx, msg.data() + pos, piece);
                pos += piece;
            }
            std::vector<uint8_t> d(32);
            sha256_final(&ctx, d.data());
            ASSERT_EQ(d, ourSha(msg)) << "length " << len;
        }
    }
}

TEST(Sha256Test, MatchesOpenSslOnRandomMessages) {
    std::mt19937 rng(99);
    for (int i = 0; i < 500; ++i) {
        std::string msg(rng() % 1500, '\0');
        for (auto& ch : msg) ch = static_cast<char>(rng());
        std::vector<uint8_t> expected(32);
        SHA256(reinterpret_cast<const unsigned char*>(msg.data()), msg.size(), expected.data());
        ASSERT_EQ(ourSha(msg), expected) << "length " << msg.size();
    }
}

TEST(Rand48Test, MatchesTheCLibrary) {
    std::mt19937 rng(48);
    std::vector<uint32_t> seeds = {0, 1, 0x7fffffff, 0x80000000u, 0xffffffffu};
    for (int i = 0; i < 60; ++i) seeds.push_back(rng());
    for (uint32_t seed : seeds) {
        ::srand48(static_cast<long>(seed));
        orv::isrand(seed);
        for (int draw = 0; draw < 200; ++draw) {
            ASSERT_EQ(long(orv::irand()), ::lrand48()) << "seed " << seed << " draw " << draw;
        }
        ::srand48(static_cast<long>(seed));
        orv::srand48(static_cast<long>(seed));
        for (int draw = 0; draw < 200; ++draw) {
            if (draw % 3 == 0) {
                ASSERT_EQ(orv::mrand48(), ::mrand48()) << "seed " << seed << " draw " << draw;
            } else {
                ASSERT_EQ(orv::lrand48(), ::lrand48()) << "seed " << seed << " draw " << draw;
            }
        }
        unsigned short ours[3], theirs[3];
        for (int k = 0; k < 3; ++k) ours[k] = theirs[k] = static_cast<unsigned short>(rng());
        for (int draw = 0; draw < 50; ++draw) {
            ASSERT_EQ(orv::jrand48(ours), ::jrand48(theirs));
            ASSERT_EQ(memcmp(ours, theirs, sizeof(ours)), 0);
        }
    }
}

TEST(Rand48Test, SeedZeroFirstDraw) {
    orv::isrand(0);
    const uint64_t state = (0x5DEECE66DULL * 0x330EULL + 0xBULL) & ((1ULL << 48) - 1);
    EXPECT_EQ(orv::irand(), static_cast<int32_t>(state >> 17));
}

}  // namespace
