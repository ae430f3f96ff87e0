#include "tools/codec/OrvPolicyEncoder.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/sha.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <random>
#include <vector>

#include "crypto/OrvPolicyDecoder.h"
#include "crypto/Rand48.h"
#include "tools/codec/OrvPolicyText.h"

namespace {

constexpr size_t kHeader = kOrvPolicyHeaderSize;
constexpr size_t kDigest = kOrvPolicyDigestSize;

bool fail(std::string* error, const std::string& why) {
    if (error) *error = why;
    return false;
}

bool encryptBody(const uint8_t key[32], uint8_t* body, size_t len) {
    std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(),
                                                                        EVP_CIPHER_CTX_free);
    if (!ctx || EVP_EncryptInit_ex(ctx.get(), EVP_aes_256_ecb(), nullptr, key, nullptr) != 1 ||
        EVP_CIPHER_CTX_set_padding(ctx.get(), 0) != 1) {
        return false;
    }
    std::vector<uint8_t> out(len + 16);
    int n = 0, tail = 0;
    if (EVP_EncryptUpdate(ctx.get(), out.data(), &n, body, static_cast<int>(len)) != 1 ||
        EVP_EncryptFinal_ex(ctx.get(), out.data() + n, &tail) != 1 ||
        static_cast<size_t>(n + tail) != len) {
        return false;
    }
    std::copy(out.begin(), out.begin() + len, body);
    return true;
}

}  // namespace

bool orvProtectPolicy(const std::string& json, const OrvProtectOptions& opts, std::string& out,
                      std::string* error) {
    if (opts.mask < -1 || opts.mask > 255) return fail(error, "mask must be 0..255");
    if (opts.seedPos != -1 && (opts.seedPos < 3 || opts.seedPos > 252)) {
        return fail(error, "seed position must be 3..252");
    }
    if (opts.seed < -1 || opts.seed > 0xFFFFFFFFLL) return fail(error, "seed must be 32 bits");
    size_t pad;
    if (opts.padCount == -1) {
        pad = (16 - json.size() % 16) % 16;
        // The body must hold at least one block, even for an empty document.
        if (json.size() + pad == 0) pad = 16;
    } else {
        if (opts.padCount < 0 || opts.padCount > 255)
            return fail(error, "pad count must be 0..255");
        pad = static_cast<size_t>(opts.padCount);
        if ((json.size() + pad) % 16 != 0 || json.size() + pad == 0) {
            return fail(error, "pad count must make the body a non-empty multiple of 16");
        }
    }

    uint32_t rngSeed = opts.rngSeed;
    if (rngSeed == 0) {
        rngSeed = static_cast<uint32_t>(
            std::chrono::high_resolution_clock::now().time_since_epoch().count());
    }
    std::mt19937 rng(rngSeed);
    auto byte = [&rng]() { return static_cast<uint8_t>(rng()); };

    const uint8_t mask = opts.mask >= 0 ? static_cast<uint8_t>(opts.mask) : byte();
    const size_t seedPos = opts.seedPos >= 0 ? static_cast<size_t>(opts.seedPos)
                                             : std::uniform_int_distribution<size_t>(3, 252)(rng);
    const uint32_t seed = opts.seed >= 0 ? static_cast<uint32_t>(opts.seed) : rng();

    const size_t bodyLen = json.size() + pad;
    const size_t n = kHeader + bodyLen + kDigest;
    std::vector<uint8_t> buf(n);
    buf[0] = mask;
    buf[1] = static_cast<uint8_t>(seedPos);
    buf[2] = static_cast<uint8_t>(pad);
    for (size_t i = 3; i < kHeader; ++i) buf[i] = byte();
    for (size_t i = 0; i < 4; ++i) buf[seedPos + i] = static_cast<uint8_t>(seed >> (8 * i));
    std::copy(json.begin(), json.end(), buf.begin() + kHeader);
    for (size_t i = kHeader + json.size(); i < kHeader + bodyLen; ++i) buf[i] = byte();

    SHA256(buf.data(), n - kDigest, &buf[n - kDigest]);

    // Same sequence as isrand/irand, but on a private state: encoding in a process that is
    // also loading a policy must not disturb the decoder's shared generator.
    uint8_t key[32];
    unsigned short state[3] = {0x330E, static_cast<unsigned short>(seed),
                               static_cast<unsigned short>(seed >> 16)};
    for (int k = 0; k < 32; ++k) {
        key[k] = static_cast<uint8_t>(static_cast<uint32_t>(orv::jrand48(state)) >> 1);
    }
    const bool enciphered = encryptBody(key, &buf[kHeader], bodyLen);
    OPENSSL_cleanse(key, sizeof(key));
    if (!enciphered) return fail(error, "AES-256 encryption failed");

    for (size_t i = 1; i < kHeader; ++i) buf[i] ^= mask;
    return orvEncodePolicyText(buf, rng, out, error);
}

bool orvUnprotectPolicy(const std::string& text, std::string& json, std::string* error) {
    if (!orv_policy_text_size_ok(text.size())) {
        return fail(error,
                    "length " + std::to_string(text.size()) + " is not that of a protected policy");
    }
    if (!decode_orv_policy_text(text.data(), text.size(), json)) {
        return fail(error,
                    "not a valid protected policy (character, seed position, digest or "
                    "pad count)");
    }
    return true;
}
