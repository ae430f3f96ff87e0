#include <gtest/gtest.h>
#include <json/json.h>
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "crypto/OrvPolicyDecoder.h"
#include "support/OrvTestSupport.h"
#include "tools/codec/OrvPolicyEncoder.h"
#include "tools/codec/OrvPolicyText.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Runs the daemon's file decoder on `text`: success, whether a file was written, and its content.
// One directory serves every call: a fresh one each time made thousands of decodes I/O-bound.
std::tuple<bool, bool, std::string> decodeFile(const std::string& text) {
    static const orvtest::TempRoot dir;
    unlink((dir / "out").c_str());
    int rc = decrypt_policy_file(dir.write("in", text), dir / "out");
    return {rc != 0, std::filesystem::exists(dir / "out"), orvtest::readFile(dir / "out")};
}

struct Layout {
    uint8_t mask = 0x5a, seedPos = 17;
    uint32_t seed = 0xC0FFEE;
    size_t padBytes = 0;  // document + pad must fill whole blocks
    int storedPad = -1;   // pad count written in the header; -1: padBytes
};

// A second encoder built only from OpenSSL and the C library's generator, so that the decoder
// is judged against something other than our own encoder.
std::string independentProtect(const std::string& json, const Layout& l, uint32_t rngSeed = 1) {
    std::mt19937 rng(rngSeed);
    const size_t body = json.size() + l.padBytes, n = 256 + body + 32;
    Bytes buf(n);
    for (auto& b : buf) b = uint8_t(rng());
    buf[0] = l.mask;
    buf[1] = l.seedPos;
    buf[2] = uint8_t(l.storedPad >= 0 ? l.storedPad : int(l.padBytes));
    for (size_t i = 0; i < 4 && l.seedPos + i < 256; ++i)
        buf[l.seedPos + i] = uint8_t(l.seed >> (8 * i));
    std::copy(json.begin(), json.end(), buf.begin() + 256);
    SHA256(buf.data(), n - 32, &buf[n - 32]);
    ::srand48(long(l.seed));
    uint8_t key[32];
    for (auto& k : key) k = uint8_t(::lrand48());
    Bytes out(body + 16);
    int len = 0, tail = 0;
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex(ctx, EVP_aes_256_ecb(), nullptr, key, nullptr);
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    EVP_EncryptUpdate(ctx, out.data(), &len, &buf[256], int(body));
    EVP_EncryptFinal_ex(ctx, out.data() + len, &tail);
    EVP_CIPHER_CTX_free(ctx);
    std::copy(out.begin(), out.begin() + body, buf.begin() + 256);
    for (size_t i = 1; i < 256; ++i) buf[i] ^= l.mask;
    std::string text;
    EXPECT_TRUE(orvEncodePolicyText(buf, rng, text, nullptr));
    return text;
}

// The text layer written out again from its definition.
Bytes referenceBytes(const std::string& t) {
    Bytes out(t.size() / 2);
    auto c = [&t](size_t k) { return int(uint8_t(t[k])); };
    out[0] = uint8_t((unsigned(c(0) - 95) << 4) | unsigned(c(1) - c(0)));
    for (size_t i = 1; i < out.size(); ++i) {
        int high = c(2 * i) - c(2 * i - 1), low = c(2 * i + 1) - c(2 * i);
        out[i] = uint8_t((((high + 94) % 94) << 4) | (((low + 94) % 94) & 15));
    }
    return out;
}

bool startsLikeJson(char c) {
    return strchr(" 0123456789-\"[{tfn/", c) != nullptr;
}

const std::string kDoc16 = "{\"a\":[1,2,3,4]}\n";  // exactly one block

TEST(PolicyCodec, RoundTripsEveryMaskWithRandomDocumentsAndOptions) {
    std::mt19937 rng(424242);
    for (int mask = 0; mask < 256; ++mask) {
        size_t size = mask == 0 ? 0 : mask == 2 ? 16 : mask % 4 ? rng() % 1200 : rng() % 16;
        std::string doc(size, '\0');
        for (auto& ch : doc) ch = char(rng());
        OrvProtectOptions opts;
        opts.rngSeed = uint32_t(mask + 1);
        opts.mask = mask;
        size_t pad = doc.empty() ? 16 : (16 - doc.size() % 16) % 16;
        if (mask % 2) {  // explicit pad counts up to the largest a byte holds
            pad += 16 * (rng() % ((255 - pad) / 16 + 1));
            opts.padCount = int(pad);
            opts.seedPos = int(3 + rng() % 250);
            opts.seed = rng();
        }
        std::string text, back, error;
        ASSERT_TRUE(orvProtectPolicy(doc, opts, text, &error)) << error;
        ASSERT_EQ(2 * (256 + doc.size() + pad + 32), text.size());
        EXPECT_TRUE(
            std::all_of(text.begin(), text.end(), [](char c) { return c >= 32 && c <= 126; }));
        // Loaders try plain JSON first: not even a lenient reader may take the text as one.
        EXPECT_FALSE(startsLikeJson(text[0])) << text.substr(0, 8);
        Json::Value root;
        EXPECT_FALSE(Json::Reader().parse(text, root)) << text.substr(0, 8);
        Bytes bytes = referenceBytes(text);
        EXPECT_EQ(mask, bytes[0]);
        EXPECT_EQ(pad, size_t(bytes[2] ^ mask));
        if (mask % 2) {
            EXPECT_EQ(opts.seedPos, bytes[1] ^ mask);
            uint32_t seed = 0;
            for (int k = 0; k < 4; ++k) seed |= uint32_t(bytes[opts.seedPos + k] ^ mask) << (8 * k);
            EXPECT_EQ(opts.seed, seed);
        }
        ASSERT_TRUE(orvUnprotectPolicy(text, back, &error)) << "mask " << mask << ": " << error;
        EXPECT_EQ(doc, back) << "mask " << mask;
        if (mask % 16 == 0) {
            EXPECT_EQ(std::make_tuple(true, true, doc), decodeFile(text));
        }
    }
}

TEST(PolicyCodec, RefusesBadOptions) {
    const std::tuple<const char*, size_t, int, int, int64_t, int> cases[] = {
        // name, document size, mask, seed position, seed, pad count
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
    for (const auto& [name, size, mask, seedPos, seed, pad] : cases) {
        OrvProtectOptions opts;
        std::tie(opts.mask, opts.seedPos, opts.seed, opts.padCount) =
            std::tie(mask, seedPos, seed, pad);
        std::string text, error;
        EXPECT_FALSE(orvProtectPolicy(std::string(size, 'x'), opts, text, &error)) << name;
        EXPECT_FALSE(error.empty()) << name;
    }
}

// Single-character changes in every region of the file, each tried with every other printable
// character. Only nibbles survive decoding, so some changes leave the bytes as they were; those
// must still decode, every other one must be refused with nothing written.
TEST(PolicyCodec, ChangedCharactersAreRefusedUnlessHarmless) {
    const std::string doc = "{\"b\":[true]}";  // 12 bytes + 4 pad: one block
    OrvProtectOptions opts;
    opts.rngSeed = 9;
    opts.seedPos = 40;
    std::string text;
    ASSERT_TRUE(orvProtectPolicy(doc, opts, text, nullptr));
    ASSERT_EQ(608u, text.size());
    const Bytes original = referenceBytes(text);
    int refused = 0, harmless = 0;
    // mask, seed position, pad count, filler, seed, body (document and pad), digest
    for (size_t pos : {0,   1,   2,   3,   4,   5,   81,  84,  87,  300, 511,
                       512, 513, 530, 535, 536, 543, 544, 545, 590, 606, 607}) {
        for (char ch = 32; ch <= 126; ++ch) {
            if (ch == text[pos]) continue;
            std::string changed = text;
            changed[pos] = ch;
            const bool same = referenceBytes(changed) == original;
            (same ? harmless : refused)++;
            ASSERT_EQ(same ? std::make_tuple(true, true, doc)
                           : std::make_tuple(false, false, std::string()),
                      decodeFile(changed))
                << "position " << pos << " char " << ch;
        }
    }
    EXPECT_GT(harmless, 0);
    EXPECT_GT(refused, harmless);
}

TEST(PolicyDecoder, RefusesTextsOfWrongShape) {
    // Valid files of N = 304 and N = 320, then the latter cut or spoiled in ways only the shape
    // rules catch.
    const std::string smallest = independentProtect(kDoc16, Layout());
    const std::string valid = independentProtect(kDoc16 + kDoc16, Layout());
    ASSERT_EQ(608u, smallest.size());
    ASSERT_EQ(640u, valid.size());
    EXPECT_EQ(std::make_tuple(true, true, kDoc16), decodeFile(smallest));
    EXPECT_EQ(std::make_tuple(true, true, kDoc16 + kDoc16), decodeFile(valid));
    const std::pair<const char*, std::string> cases[] = {
        {"606 characters (N = 303)", valid.substr(0, 606)},
        {"576 characters (N = 288)", valid.substr(0, 576)},
        {"odd length", valid.substr(0, 639)},
        {"trailing line feed", valid.substr(0, 639) + "\n"},
        {"line feed appended", valid + "\n"},
        {"carriage return inside", valid.substr(0, 300) + "\r" + valid.substr(301)},
        {"high byte first", "\xc3" + valid.substr(1)},
        {"empty", ""},
    };
    for (const auto& [name, text] : cases) {
        EXPECT_EQ(std::make_tuple(false, false, std::string()), decodeFile(text)) << name;
    }
}

// DEL is 94 above '!', so in place of a '!' between larger neighbours it decodes to the same
// bytes: only the character check can refuse it.
TEST(PolicyDecoder, RefusesOutOfRangeCharacterThatWouldDecodeAlike) {
    for (uint32_t seed = 1; seed < 50; ++seed) {
        std::string text = independentProtect(kDoc16, Layout(), seed);
        for (size_t i = 2; i + 1 < text.size(); i += 2) {
            if (text[i] != '!' || text[i - 1] <= '!' || text[i + 1] < '!') continue;
            ASSERT_TRUE(std::get<0>(decodeFile(text)));
            text[i] = '\x7f';
            EXPECT_EQ(std::make_tuple(false, false, std::string()), decodeFile(text));
            return;
        }
    }
    FAIL() << "no text with a suitable '!'";
}

TEST(PolicyDecoder, SeedPositionBounds) {
    for (int pos : {0, 2, 3, 100, 252, 253, 255}) {
        for (uint8_t mask : {0x00, 0x81, 0xff}) {
            Layout l;
            l.seedPos = uint8_t(pos);
            l.mask = mask;
            bool ok = pos >= 3 && pos <= 252;
            EXPECT_EQ(std::make_tuple(ok, ok, ok ? kDoc16 : ""),
                      decodeFile(independentProtect(kDoc16, l)))
                << "position " << pos << " mask " << int(mask);
        }
    }
}

TEST(PolicyDecoder, PadCountBounds) {
    const std::string doc = "{\"applications\":{}}\n";  // 20 bytes + 12 pad: a body of 32
    Layout l;
    l.padBytes = 12;
    const std::tuple<int, bool, size_t> cases[] = {
        // stored pad count, accepted, bytes written (0 pad: the whole body, pad included)
        {12, true, 20}, {0, true, 32},  {31, true, 1},
        {32, true, 0},  {33, false, 0}, {255, false, 0},
    };
    for (const auto& [stored, ok, size] : cases) {
        l.storedPad = stored;
        auto [decoded, written, out] = decodeFile(independentProtect(doc, l, 5));
        ASSERT_EQ(ok, decoded) << "pad " << stored;
        ASSERT_EQ(ok, written) << "pad " << stored;
        ASSERT_EQ(size, out.size()) << "pad " << stored;
        EXPECT_EQ(doc.substr(0, size), out.substr(0, 20)) << "pad " << stored;
    }
}

TEST(PolicyDecoder, FailuresWriteNothingAndKeepTheOldFile) {
    orvtest::TempRoot dir;
    std::string good = independentProtect(kDoc16, Layout()), bad = good;
    bad[92] = char(bad[92] < 126 ? bad[92] + 1 : bad[92] - 1);  // a header byte
    std::string src = dir.write("good", good), out = dir / "out";
    EXPECT_EQ(0, decrypt_policy_file(dir / "missing", out));
    EXPECT_EQ(0, decrypt_policy_file(src, dir / "no/such/dir/out"));
    EXPECT_EQ(0, decrypt_policy_file(dir / "", out));  // a directory
    EXPECT_EQ(0, decrypt_orv_policy(nullptr, out.c_str()));
    EXPECT_EQ(0, decrypt_orv_policy(src.c_str(), nullptr));
    EXPECT_FALSE(std::filesystem::exists(out));

    const std::string previous = "previous content that is longer than the document";
    dir.write("out", previous);
    EXPECT_EQ(0, decrypt_policy_file(dir.write("bad", bad), out));
    EXPECT_EQ(previous, orvtest::readFile(out));
    EXPECT_NE(0, decrypt_orv_policy(src.c_str(), out.c_str()));
    EXPECT_EQ(kDoc16, orvtest::readFile(out)) << "replaced whole, not overlaid";
}

}  // namespace
