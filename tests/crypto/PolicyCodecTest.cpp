#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>

#include "crypto/OrvPolicyDecoder.h"
#include "tests/crypto/CryptoTestSupport.h"
#include "tools/codec/OrvPolicyEncoder.h"

namespace {

using orvcrypto::exists;
using orvcrypto::ScratchDir;
using orvcrypto::slurp;

// The text layer written out again from its definition, to judge texts independently.
std::vector<uint8_t> referenceBytes(const std::string& t) {
    std::vector<uint8_t> out(t.size() / 2);
    auto c = [&t](size_t k) { return int(static_cast<unsigned char>(t[k])); };
    out[0] = static_cast<uint8_t>((unsigned(c(0) - 95) << 4) | unsigned(c(1) - c(0)));
    for (size_t i = 1; i < out.size(); ++i) {
        int high = c(2 * i) - c(2 * i - 1);
        int low = c(2 * i + 1) - c(2 * i);
        out[i] = static_cast<uint8_t>((((high + 94) % 94) << 4) | (((low + 94) % 94) & 15));
    }
    return out;
}

bool startsLikeJson(char c) {
    return strchr(" 0123456789-\"[{tfn/", c) != nullptr;
}

void expectWellFormed(const std::string& text, size_t docSize, size_t pad) {
    ASSERT_EQ(text.size(), 2 * (256 + docSize + pad + 32));
    EXPECT_TRUE(
        std::all_of(text.begin(), text.end(), [](char ch) { return ch >= 32 && ch <= 126; }));
    EXPECT_FALSE(startsLikeJson(text[0])) << text.substr(0, 8);
}

TEST(PolicyCodecTest, RoundTripsRandomDocumentsSizesAndPads) {
    std::mt19937 rng(424242);
    ScratchDir dir;
    for (int i = 0; i < 120; ++i) {
        size_t size = (i % 4 == 0) ? rng() % 16 : rng() % 1200;
        std::string doc = orvcrypto::randomDocument(size, rng);
        OrvProtectOptions opts;
        opts.rngSeed = static_cast<uint32_t>(i + 1);
        size_t pad = (16 - size % 16) % 16;
        if (size + pad == 0) pad = 16;
        if (i % 2) {
            // Explicit pad counts up to the largest one a byte holds.
            pad += 16 * (rng() % ((255 - pad) / 16 + 1));
            opts.padCount = static_cast<int>(pad);
            opts.mask = static_cast<int>(rng() % 256);
            opts.seedPos = static_cast<int>(3 + rng() % 250);
            opts.seed = rng();
        }
        std::string text, error;
        ASSERT_TRUE(orvProtectPolicy(doc, opts, text, &error)) << error;
        expectWellFormed(text, size, pad);

        std::vector<uint8_t> bytes = referenceBytes(text);
        EXPECT_EQ(bytes[2] ^ bytes[0], pad);
        if (opts.mask >= 0) {
            EXPECT_EQ(bytes[0], opts.mask);
            EXPECT_EQ(bytes[1] ^ bytes[0], opts.seedPos);
            uint32_t seed = 0;
            for (int k = 0; k < 4; ++k)
                seed |= uint32_t(bytes[opts.seedPos + k] ^ bytes[0]) << (8 * k);
            EXPECT_EQ(seed, opts.seed);
        }

        std::string back;
        ASSERT_TRUE(orvUnprotectPolicy(text, back, &error)) << error;
        EXPECT_EQ(back, doc) << "iteration " << i;
        if (i % 10 == 0) {
            std::string dst = dir / ("out" + std::to_string(i));
            ASSERT_NE(decrypt_policy_file(dir.write("in" + std::to_string(i), text), dst), 0);
            EXPECT_EQ(slurp(dst), doc);
        }
    }
}

TEST(PolicyCodecTest, EveryMaskRoundTrips) {
    for (int mask = 0; mask < 256; ++mask) {
        OrvProtectOptions opts;
        opts.mask = mask;
        opts.rngSeed = static_cast<uint32_t>(mask + 1);
        std::string text, back, error;
        ASSERT_TRUE(orvProtectPolicy("{}", opts, text, &error)) << error;
        ASSERT_EQ(referenceBytes(text)[0], mask);
        ASSERT_TRUE(orvUnprotectPolicy(text, back, &error)) << "mask " << mask << ": " << error;
        ASSERT_EQ(back, "{}");
    }
}

TEST(PolicyCodecTest, DefaultPadding) {
    struct Case {
        size_t size;
        size_t textSize;
    } cases[] = {{0, 608}, {1, 608}, {15, 608}, {16, 608}, {17, 640}, {1000, 2592}};
    std::mt19937 rng(1);
    for (const Case& c : cases) {
        std::string text, back;
        std::string doc = orvcrypto::randomDocument(c.size, rng);
        ASSERT_TRUE(orvProtectPolicy(doc, OrvProtectOptions(), text, nullptr));
        EXPECT_EQ(text.size(), c.textSize) << "size " << c.size;
        ASSERT_TRUE(orvUnprotectPolicy(text, back, nullptr));
        EXPECT_EQ(back, doc);
    }
}

TEST(PolicyCodecTest, RefusesBadOptions) {
    struct Case {
        const char* name;
        size_t docSize;
        int mask, seedPos;
        int64_t seed;
        int padCount;
    } cases[] = {
        {"mask 256", 5, 256, -1, -1, -1},
        {"mask -2", 5, -2, -1, -1, -1},
        {"seed position 2", 5, -1, 2, -1, -1},
        {"seed position 253", 5, -1, 253, -1, -1},
        {"seed 2^32", 5, -1, -1, 0x100000000LL, -1},
        {"seed -2", 5, -1, -1, -2, -1},
        {"pad not filling a block", 5, -1, -1, -1, 10},
        {"pad beyond a byte", 5, -1, -1, -1, 267},
        {"empty body", 0, -1, -1, -1, 0},
        {"pad -2", 16, -1, -1, -1, -2},
    };
    for (const Case& c : cases) {
        OrvProtectOptions opts;
        opts.mask = c.mask;
        opts.seedPos = c.seedPos;
        opts.seed = c.seed;
        opts.padCount = c.padCount;
        std::string text, error;
        EXPECT_FALSE(orvProtectPolicy(std::string(c.docSize, 'x'), opts, text, &error)) << c.name;
        EXPECT_FALSE(error.empty()) << c.name;
    }
    std::string json, error;
    EXPECT_FALSE(orvUnprotectPolicy(std::string(606, 'A'), json, &error));
    EXPECT_FALSE(orvUnprotectPolicy(std::string(608, 'A'), json, &error));
    EXPECT_FALSE(error.empty());
}

TEST(PolicyCodecTest, ReproducibleOnlyWithTheSameSeed) {
    OrvProtectOptions opts;
    opts.rngSeed = 77;
    std::string a, b, c;
    ASSERT_TRUE(orvProtectPolicy("{\"x\":1}", opts, a, nullptr));
    ASSERT_TRUE(orvProtectPolicy("{\"x\":1}", opts, b, nullptr));
    opts.rngSeed = 78;
    ASSERT_TRUE(orvProtectPolicy("{\"x\":1}", opts, c, nullptr));
    EXPECT_EQ(a, b);
    EXPECT_NE(a, c);
}

// Single-character changes at places in every region of the file, each tried with every other
// printable character. Only nibbles survive decoding, so some changes leave the bytes as they
// were; those must still decode, every other one must be refused with nothing written.
TEST(PolicyCodecTest, ChangedCharactersAreRefusedUnlessHarmless) {
    const std::string doc = "{\"b\":[true]}";  // 12 bytes + 4 pad: one block
    OrvProtectOptions opts;
    opts.rngSeed = 9;
    opts.seedPos = 40;
    std::string text;
    ASSERT_TRUE(orvProtectPolicy(doc, opts, text, nullptr));
    ASSERT_EQ(text.size(), 608u);
    const std::vector<uint8_t> original = referenceBytes(text);
    // mask, seed position, pad count, filler, seed, body (document and pad), digest
    const size_t positions[] = {0,   1,   2,   3,   4,   5,   81,  84,  87,  300, 511,
                                512, 513, 530, 535, 536, 543, 544, 545, 590, 606, 607};
    ScratchDir dir;
    int refused = 0, harmless = 0;
    for (size_t pos : positions) {
        for (int ch = 32; ch <= 126; ++ch) {
            if (ch == static_cast<unsigned char>(text[pos])) continue;
            std::string changed = text;
            changed[pos] = static_cast<char>(ch);
            const bool same = referenceBytes(changed) == original;
            std::string dst = dir / "out";
            int rc = decrypt_policy_file(dir.write("in", changed), dst);
            if (same) {
                ++harmless;
                ASSERT_NE(rc, 0) << "position " << pos << " char " << ch;
                ASSERT_EQ(slurp(dst), doc);
                unlink(dst.c_str());
            } else {
                ++refused;
                ASSERT_EQ(rc, 0) << "position " << pos << " char " << ch;
                ASSERT_FALSE(exists(dst)) << "position " << pos << " char " << ch;
            }
        }
    }
    EXPECT_GT(harmless, 0);
    EXPECT_GT(refused, harmless);
}

TEST(PolicyCodecTest, NeverStartsLikeJsonValue) {
    std::mt19937 rng(31337);
    for (int i = 0; i < 2000; ++i) {
        OrvProtectOptions opts;
        opts.rngSeed = rng() | 1;
        std::string doc = (i % 2) ? "{\"applications\":{}}" : "";
        std::string text;
        ASSERT_TRUE(orvProtectPolicy(doc, opts, text, nullptr));
        ASSERT_FALSE(startsLikeJson(text[0])) << "run " << i << ": " << text.substr(0, 8);
        if (i % 20 == 0) {
            // A lenient reader must not take any prefix of it as a document.
            Json::Value root;
            Json::Reader reader;
            EXPECT_FALSE(reader.parse(text, root)) << text.substr(0, 8);
        }
    }
}

}  // namespace
