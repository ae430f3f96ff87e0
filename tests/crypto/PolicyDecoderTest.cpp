#include <gtest/gtest.h>

#include <string>

#include "crypto/OrvPolicyDecoder.h"
#include "crypto/OrvSecurityUtil.h"
#include "tests/crypto/CryptoTestSupport.h"

namespace {

using orvcrypto::exists;
using orvcrypto::independentProtect;
using orvcrypto::Layout;
using orvcrypto::ScratchDir;
using orvcrypto::slurp;

const std::string kDoc16 = "{\"a\":[1,2,3,4]}\n";  // exactly one block

Layout withPad(size_t pad) {
    Layout l;
    l.padBytes = pad;
    return l;
}

TEST(PolicyDecoderTest, SmallestFileDecodesWholeBodyWithoutPad) {
    ScratchDir dir;
    std::string text = independentProtect(kDoc16, withPad(0));
    ASSERT_EQ(text.size(), 608u);
    std::string src = dir.write("in", text);
    ASSERT_NE(decrypt_policy_file(src, dir / "out"), 0);
    EXPECT_EQ(slurp(dir / "out"), kDoc16);
}

TEST(PolicyDecoderTest, RefusesTextsOfWrongShape) {
    // A valid 640-character file (N = 320) cut or spoiled in ways that only the shape rules
    // catch; the control row shows the untouched file passes.
    const std::string valid = independentProtect(kDoc16 + kDoc16, withPad(0));
    ASSERT_EQ(valid.size(), 640u);
    struct Case {
        const char* name;
        std::string text;
        bool ok;
    } cases[] = {
        {"untouched", valid, true},
        {"606 characters (N = 303)", valid.substr(0, 606), false},
        {"576 characters (N = 288)", valid.substr(0, 576), false},
        {"odd length", valid.substr(0, 639), false},
        {"trailing line feed", valid.substr(0, 639) + "\n", false},
        {"line feed appended", valid + "\n", false},
        {"carriage return inside", valid.substr(0, 300) + "\r" + valid.substr(301), false},
        {"DEL inside", valid.substr(0, 400) + "\x7f" + valid.substr(401), false},
        {"high byte first", "\xc3" + valid.substr(1), false},
        {"empty", "", false},
    };
    for (const Case& c : cases) {
        ScratchDir dir;
        std::string dst = dir / "out";
        int rc = decrypt_policy_file(dir.write("in", c.text), dst);
        EXPECT_EQ(rc != 0, c.ok) << c.name;
        EXPECT_EQ(exists(dst), c.ok) << c.name;
    }
}

// DEL is 94 above '!', so in place of a '!' between larger neighbours it decodes to the same
// bytes: only the character check can refuse it.
TEST(PolicyDecoderTest, RefusesOutOfRangeCharacterThatWouldDecodeAlike) {
    for (uint32_t seed = 1; seed < 50; ++seed) {
        std::string text = independentProtect(kDoc16, withPad(0), seed);
        for (size_t i = 2; i + 1 < text.size(); i += 2) {
            if (text[i] != '!' || text[i - 1] <= '!' || text[i + 1] < '!') continue;
            ScratchDir dir;
            ASSERT_NE(decrypt_policy_file(dir.write("in", text), dir / "ok"), 0);
            text[i] = '\x7f';
            EXPECT_EQ(decrypt_policy_file(dir.write("del", text), dir / "out"), 0);
            EXPECT_FALSE(exists(dir / "out"));
            return;
        }
    }
    FAIL() << "no text with a suitable '!'";
}

TEST(PolicyDecoderTest, SeedPositionBounds) {
    struct Case {
        uint8_t pos;
        bool ok;
    } cases[] = {{0, false},  {2, false},   {3, true},   {100, true},
                 {252, true}, {253, false}, {255, false}};
    for (const Case& c : cases) {
        for (uint8_t mask : {0x00, 0x81, 0xff}) {
            Layout l;
            l.seedPos = c.pos;
            l.mask = mask;
            ScratchDir dir;
            std::string dst = dir / "out";
            int rc = decrypt_policy_file(dir.write("in", independentProtect(kDoc16, l)), dst);
            EXPECT_EQ(rc != 0, c.ok) << "position " << int(c.pos) << " mask " << int(mask);
            EXPECT_EQ(exists(dst), c.ok) << "position " << int(c.pos);
            if (c.ok) {
                EXPECT_EQ(slurp(dst), kDoc16);
            }
        }
    }
}

TEST(PolicyDecoderTest, PadCountBounds) {
    // 20 bytes of document padded with 12 bytes: a body of 32.
    const std::string doc = "{\"applications\":{}}\n";
    ASSERT_EQ(doc.size(), 20u);
    struct Case {
        int storedPad;
        bool ok;
        std::string expected;
    } cases[] = {
        {12, true, doc},
        {0, true, ""},  // the whole body, pad bytes included, is written
        {31, true, doc.substr(0, 1)},
        {32, true, ""},
        {33, false, ""},
        {255, false, ""},
    };
    for (const Case& c : cases) {
        Layout l = withPad(12);
        l.storedPad = c.storedPad;
        std::mt19937 rng(5);
        std::vector<uint8_t> bytes = orvcrypto::layoutBytes(doc, l, rng);
        std::string text;
        ASSERT_TRUE(orvEncodePolicyText(bytes, rng, text, nullptr));
        ScratchDir dir;
        std::string dst = dir / "out";
        int rc = decrypt_policy_file(dir.write("in", text), dst);
        ASSERT_EQ(rc != 0, c.ok) << "pad " << c.storedPad;
        ASSERT_EQ(exists(dst), c.ok) << "pad " << c.storedPad;
        if (!c.ok) continue;
        std::string out = slurp(dst);
        if (c.storedPad == 0) {
            ASSERT_EQ(out.size(), 32u);
            EXPECT_EQ(out.substr(0, 20), doc);
        } else {
            EXPECT_EQ(out, c.expected) << "pad " << c.storedPad;
        }
    }
}

TEST(PolicyDecoderTest, FileSystemFailures) {
    ScratchDir dir;
    std::string src = dir.write("in", independentProtect(kDoc16, withPad(0)));
    EXPECT_EQ(decrypt_policy_file(dir / "missing", dir / "out"), 0);
    EXPECT_FALSE(exists(dir / "out"));
    EXPECT_EQ(decrypt_policy_file(src, dir / "no/such/dir/out"), 0);
    EXPECT_EQ(decrypt_policy_file(dir / "", dir / "out"), 0);  // a directory
    EXPECT_EQ(decrypt_orv_policy(nullptr, (dir / "out").c_str()), 0);
    EXPECT_EQ(decrypt_orv_policy(src.c_str(), nullptr), 0);
    EXPECT_FALSE(OrvSecurityUtil::decrypt(nullptr, nullptr));
    EXPECT_FALSE(exists(dir / "out"));
    EXPECT_NE(decrypt_orv_policy(src.c_str(), (dir / "out").c_str()), 0);
}

TEST(PolicyDecoderTest, ExistingDestinationIsReplacedOnlyOnSuccess) {
    ScratchDir dir;
    std::string good = independentProtect(kDoc16, withPad(0));
    std::string bad = good;
    bad[92] = static_cast<char>(bad[92] < 126 ? bad[92] + 1 : bad[92] - 1);  // a header byte
    std::string dst = dir.write("out", "previous content that is longer than the document");
    EXPECT_EQ(decrypt_policy_file(dir.write("bad", bad), dst), 0);
    EXPECT_EQ(slurp(dst), "previous content that is longer than the document");
    EXPECT_NE(decrypt_policy_file(dir.write("good", good), dst), 0);
    EXPECT_EQ(slurp(dst), kDoc16);  // truncated, not overlaid
}

}  // namespace
