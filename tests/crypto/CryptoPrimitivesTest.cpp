#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <stdlib.h>
#include <string.h>

#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "crypto/Aes256.h"
#include "crypto/Rand48.h"
#include "crypto/Sha256.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes fromHex(const std::string& hex) {
    Bytes out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        out.push_back(uint8_t(std::stoul(hex.substr(i, 2), nullptr, 16)));
    return out;
}

Bytes randomBytes(std::mt19937& rng, size_t n) {
    Bytes out(n);
    for (auto& b : out) b = uint8_t(rng());
    return out;
}

// Our digest of `msg`, fed in random pieces when `rng` is given.
Bytes ourSha(const std::string& msg, std::mt19937* rng = nullptr) {
    sha256_context ctx;
    sha256_init(&ctx);
    for (size_t pos = 0, piece; pos < msg.size(); pos += piece) {
        piece = rng ? std::min<size_t>(msg.size() - pos, (*rng)() % 80) : msg.size();
        sha256_update(&ctx, msg.data() + pos, piece);
    }
    Bytes d(32);
    sha256_final(&ctx, d.data());
    return d;
}

TEST(Aes256, Fips197ExampleReusedContextAndDone) {
    Bytes key = fromHex("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f");
    const Bytes cipher = fromHex("8ea2b7ca516745bfeafc49904b496089");
    aes256_context ctx, zero;
    memset(&ctx, 0, sizeof(ctx));
    memset(&zero, 0, sizeof(zero));
    aes256_init(&ctx, key.data());
    for (int round = 0; round < 2; ++round) {  // the second block starts from the same schedule
        Bytes block = cipher;
        aes256_decrypt_ecb(&ctx, block.data());
        EXPECT_EQ(fromHex("00112233445566778899aabbccddeeff"), block) << "block " << round;
    }
    ASSERT_NE(0, memcmp(&ctx, &zero, sizeof(ctx)));
    aes256_done(&ctx);
    EXPECT_EQ(0, memcmp(&ctx, &zero, sizeof(ctx))) << "done must wipe the whole context";
}

Bytes opensslDecrypt(const Bytes& key, const Bytes& data) {
    Bytes out(data.size() + 16);
    int n = 0, tail = 0;
    EVP_CIPHER_CTX* evp = EVP_CIPHER_CTX_new();
    EVP_DecryptInit_ex(evp, EVP_aes_256_ecb(), nullptr, key.data(), nullptr);
    EVP_CIPHER_CTX_set_padding(evp, 0);
    EVP_DecryptUpdate(evp, out.data(), &n, data.data(), int(data.size()));
    EVP_DecryptFinal_ex(evp, out.data() + n, &tail);
    EVP_CIPHER_CTX_free(evp);
    out.resize(size_t(n + tail));
    return out;
}

Bytes ourDecrypt(const Bytes& key, Bytes data) {
    aes256_context ctx;
    aes256_init(&ctx, key.data());
    for (size_t off = 0; off < data.size(); off += 16) aes256_decrypt_ecb(&ctx, &data[off]);
    aes256_done(&ctx);
    return data;
}

TEST(Aes256, MatchesOpenSsl) {
    std::mt19937 rng(20240611);
    for (int round = 0; round < 40; ++round) {
        Bytes key = randomBytes(rng, 32), data = randomBytes(rng, 48);
        if (round < 2) std::fill(key.begin(), key.end(), round ? 0xff : 0x00);
        ASSERT_EQ(opensslDecrypt(key, data), ourDecrypt(key, data)) << "round " << round;
    }
}

// The S-box walk must find every byte value in every lane. A block of 16 copies of v puts
// v ^ (last round key) into each state lane of the first inverse round; a key of 32 copies of v
// puts v into the key lanes of the last backward step and S(v), as v runs over all values too.
TEST(Aes256, EveryByteValueInEveryLane) {
    const Bytes fixedKey =
        fromHex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4");
    Bytes blocks;
    for (int v = 0; v < 256; ++v) blocks.insert(blocks.end(), 16, uint8_t(v));
    ASSERT_EQ(opensslDecrypt(fixedKey, blocks), ourDecrypt(fixedKey, blocks));
    for (int v = 0; v < 256; ++v) {
        const Bytes key(32, uint8_t(v)), block(16, uint8_t(v));
        ASSERT_EQ(opensslDecrypt(key, block), ourDecrypt(key, block)) << "key byte " << v;
    }
}

// Each block finds what its walk needs on its own stack: contexts deciphering on several threads
// at once give what each gives alone.
TEST(Aes256, ContextsOnThreadsMatchOpenSsl) {
    std::mt19937 rng(10);
    struct Job {
        Bytes key, data, got;
    };
    std::vector<Job> jobs(4);
    for (Job& job : jobs) job = {randomBytes(rng, 32), randomBytes(rng, 16 * 256), {}};
    std::vector<std::thread> threads;
    for (Job& job : jobs) threads.emplace_back([&job] { job.got = ourDecrypt(job.key, job.data); });
    for (std::thread& t : threads) t.join();
    for (size_t i = 0; i < jobs.size(); ++i)
        EXPECT_EQ(opensslDecrypt(jobs[i].key, jobs[i].data), jobs[i].got) << "thread " << i;
}

// The walk's fixed points must be found at run time, not folded by the compiler into constants:
// a stored table would put every 16th power of 3 in the program as a 16-byte vector. The
// masks of the affine step and the generator itself match one or two of them by chance.
TEST(Aes256, NoStoredTableOfPowersOfThree) {
#if !defined(__x86_64__)
    GTEST_SKIP() << "only x86-64 keeps byte-vector constants as 16-byte data";
#endif
    std::ifstream exe("/proc/self/exe", std::ios::binary);
    const std::string image((std::istreambuf_iterator<char>(exe)), std::istreambuf_iterator<char>());
    ASSERT_FALSE(image.empty());
    bool vectorOf[256] = {};
    for (size_t i = 0, run = 1; i + 1 < image.size(); ++i) {
        run = image[i + 1] == image[i] ? run + 1 : 1;
        if (run >= 16) vectorOf[uint8_t(image[i])] = true;
    }
    uint8_t power[255];
    for (int e = 0, p = 1; e < 255; ++e, p ^= (p << 1) ^ (p & 0x80 ? 0x11b : 0)) power[e] = p;
    for (int first = 0; first < 16; ++first) {
        int stored = 0;
        for (int t = 0; t < 16; ++t) stored += vectorOf[power[(first + 16 * t) % 255]];
        EXPECT_LT(stored, 8) << "every 16th power of 3 from 3^" << first;
    }
}

TEST(Sha256, Fips180Vectors) {
    const std::pair<std::string, const char*> cases[] = {
        {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
         "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        {std::string(1000000, 'a'),
         "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
    };
    for (const auto& [msg, digest] : cases) EXPECT_EQ(fromHex(digest), ourSha(msg)) << msg.size();
}

// Lengths around the 55/56/64-byte padding boundaries and random ones, fed whole and in pieces.
TEST(Sha256, MatchesOpenSslWholeAndInPieces) {
    std::mt19937 rng(7);
    std::vector<size_t> lengths = {1, 55, 56, 57, 63, 64, 65, 119, 120, 128, 4097};
    for (int i = 0; i < 100; ++i) lengths.push_back(rng() % 1500);
    for (size_t len : lengths) {
        Bytes raw = randomBytes(rng, len), expected(32);
        SHA256(raw.data(), len, expected.data());
        std::string msg(raw.begin(), raw.end());
        ASSERT_EQ(expected, ourSha(msg)) << "length " << len;
        for (int split = 0; split < 5; ++split) ASSERT_EQ(expected, ourSha(msg, &rng)) << len;
    }
}

TEST(Rand48, MatchesTheCLibrary) {
    std::mt19937 rng(48);
    std::vector<uint32_t> seeds = {0, 1, 0x7fffffff, 0x80000000u, 0xffffffffu};
    for (int i = 0; i < 20; ++i) seeds.push_back(rng());
    for (uint32_t seed : seeds) {
        ::srand48(long(seed));
        orv::isrand(seed);
        for (int draw = 0; draw < 100; ++draw)
            ASSERT_EQ(::lrand48(), long(orv::irand())) << "seed " << seed << " draw " << draw;
        ::srand48(long(seed));
        orv::srand48(long(seed));
        for (int draw = 0; draw < 100; ++draw) {
            if (draw % 3)
                ASSERT_EQ(::lrand48(), orv::lrand48()) << "seed " << seed << " draw " << draw;
            else
                ASSERT_EQ(::mrand48(), orv::mrand48()) << "seed " << seed << " draw " << draw;
        }
        unsigned short ours[3], theirs[3];
        for (int k = 0; k < 3; ++k) ours[k] = theirs[k] = uint16_t(rng());
        for (int draw = 0; draw < 20; ++draw) {
            ASSERT_EQ(::jrand48(theirs), orv::jrand48(ours));
            ASSERT_EQ(0, memcmp(ours, theirs, sizeof(ours)));
        }
    }
}

}  // namespace
