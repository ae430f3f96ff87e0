#include "crypto/OrvPolicyDecoder.h"

#include <string.h>

#include <vector>

#include "crypto/Aes256.h"
#include "crypto/OrvPolicyFile.h"
#include "crypto/Rand48.h"
#include "crypto/Sha256.h"

namespace {

constexpr size_t kOverhead = kOrvPolicyHeaderSize + kOrvPolicyDigestSize;

bool printable(int c) {
    return c >= 32 && c <= 126;
}

// A plain memset of a dying buffer may be optimised away.
void wipe(void* p, size_t n) {
    volatile uint8_t* v = static_cast<volatile uint8_t*>(p);
    for (size_t i = 0; i < n; ++i) v[i] = 0;
}

// Returns the plain document's length inside `buf` (which it deciphers in place), or -1.
long decodeBytes(const char* text, size_t size, std::vector<uint8_t>& buf) {
    const size_t n = size / 2;
    if (!orv_policy_text_size_ok(size)) return -1;
    buf.assign(n, 0);
    if (!orv_policy_text_to_bytes(text, size, buf.data())) return -1;

    for (size_t i = 1; i < kOrvPolicyHeaderSize; ++i) buf[i] ^= buf[0];
    const size_t seedPos = buf[1];
    if (seedPos < 3 || seedPos > 252) return -1;
    const uint32_t seed = uint32_t(buf[seedPos]) | (uint32_t(buf[seedPos + 1]) << 8) |
                          (uint32_t(buf[seedPos + 2]) << 16) | (uint32_t(buf[seedPos + 3]) << 24);

    uint8_t key[32];
    orv::isrand(seed);
    for (int k = 0; k < 32; ++k) key[k] = static_cast<uint8_t>(orv::irand());
    aes256_context ctx;
    memset(&ctx, 0, sizeof(ctx));
    aes256_init(&ctx, key);
    wipe(key, sizeof(key));
    for (size_t off = kOrvPolicyHeaderSize; off < n - kOrvPolicyDigestSize; off += 16) {
        aes256_decrypt_ecb(&ctx, &buf[off]);
    }
    aes256_done(&ctx);

    uint8_t digest[32];
    sha256_context sha;
    sha256_init(&sha);
    sha256_update(&sha, buf.data(), n - kOrvPolicyDigestSize);
    sha256_final(&sha, digest);
    if (memcmp(digest, &buf[n - kOrvPolicyDigestSize], kOrvPolicyDigestSize) != 0) return -1;

    const size_t pad = buf[2];
    if (pad > n - kOverhead) return -1;
    return static_cast<long>(n - kOverhead - pad);
}

}  // namespace

bool orv_policy_text_size_ok(size_t size) {
    const size_t n = size / 2;
    // The cap keeps allocation bounded: a huge file is refused, never an allocation failure.
    return size <= kOrvPolicyMaxTextSize && size % 2 == 0 && n > kOverhead && n % 16 == 0;
}

bool orv_policy_text_to_bytes(const char* text, size_t size, uint8_t* out) {
    const unsigned char* c = reinterpret_cast<const unsigned char*>(text);
    const size_t n = size / 2;
    if (n == 0) return true;
    if (!printable(c[0]) || !printable(c[1])) return false;
    // The difference is OR-ed in whole, sign bits included, before the byte is cut out.
    const int c0 = c[0], c1 = c[1];
    out[0] = static_cast<uint8_t>((static_cast<unsigned>(c0 - 95) << 4) |
                                  static_cast<unsigned>(c1 - c0));
    for (size_t i = 1; i < n; ++i) {
        const int p = c[2 * i - 1], a = c[2 * i], b = c[2 * i + 1];
        if (!printable(a) || !printable(b)) return false;
        int high = a - p;
        if (high < 0) high += 94;
        int low = b - a;
        if (low < 0) low += 94;
        out[i] = static_cast<uint8_t>((high << 4) | (low & 15));
    }
    return true;
}

bool decode_orv_policy_text(const char* text, size_t size, std::string& json) {
    std::vector<uint8_t> buf;
    const long len = decodeBytes(text, size, buf);
    if (len < 0) return false;
    json.assign(reinterpret_cast<const char*>(&buf[kOrvPolicyHeaderSize]), size_t(len));
    return true;
}

int decrypt_policy_file(const std::string& src, const std::string& dst) {
    // The cap is checked before anything is read or deciphered.
    std::string text;
    const char* reason = nullptr;
    if (!OrvPolicyFile::read(src.c_str(), kOrvPolicyMaxTextSize, text, reason)) return 0;
    std::vector<uint8_t> buf;
    const long len = decodeBytes(text.data(), text.size(), buf);
    if (len < 0) return 0;
    const bool written =
        OrvPolicyFile::write(dst.c_str(), &buf[kOrvPolicyHeaderSize], static_cast<size_t>(len));
    wipe(buf.data(), buf.size());
    return written ? 1 : 0;
}

int decrypt_orv_policy(const char* src, const char* dst) {
    if (!src || !dst) return 0;
    return decrypt_policy_file(std::string(src), std::string(dst));
}
