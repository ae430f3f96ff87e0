#pragma once
// Helpers for protected-policy tests: a scratch directory, and a second encoder built only from
// OpenSSL and the C library's generator, so that the daemon's decoder is checked against
// something other than our own encoder.
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tools/codec/OrvPolicyText.h"

namespace orvcrypto {

class ScratchDir {
  public:
    ScratchDir() {
        char tmpl[] = "/tmp/orvcrypto.XXXXXX";
        const char* dir = mkdtemp(tmpl);
        mPath = dir ? dir : "";
    }
    ~ScratchDir() {
        if (!mPath.empty()) {
            std::string cmd = "rm -rf '" + mPath + "'";
            if (system(cmd.c_str()) != 0) {
                // best effort
            }
        }
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    std::string operator/(const std::string& name) const { return mPath + "/" + name; }

    std::string write(const std::string& name, const std::string& content) const {
        std::string full = *this / name;
        std::ofstream(full, std::ios::binary) << content;
        return full;
    }

  private:
    std::string mPath;
};

inline bool exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

inline std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

struct Layout {
    uint8_t mask = 0x5a;
    uint8_t seedPos = 17;
    uint32_t seed = 0xC0FFEE;
    size_t padBytes = 0;  // appended to the document; document + pad must fill whole blocks
    int storedPad = -1;   // pad count written in the header; -1: padBytes
};

// The decoded byte buffer of a protected file: header, ciphertext and digest.
inline std::vector<uint8_t> layoutBytes(const std::string& json, const Layout& l,
                                        std::mt19937& rng) {
    const size_t body = json.size() + l.padBytes;
    const size_t n = 256 + body + 32;
    std::vector<uint8_t> buf(n);
    for (auto& b : buf) b = static_cast<uint8_t>(rng());
    buf[0] = l.mask;
    buf[1] = l.seedPos;
    buf[2] = static_cast<uint8_t>(l.storedPad >= 0 ? l.storedPad : int(l.padBytes));
    for (size_t i = 0; i < 4 && l.seedPos + i < 256; ++i) {
        buf[l.seedPos + i] = static_cast<uint8_t>(l.seed >> (8 * i));
    }
    std::copy(json.begin(), json.end(), buf.begin() + 256);
    SHA256(buf.data(), n - 32, &buf[n - 32]);

    ::srand48(static_cast<long>(l.seed));
    uint8_t key[32];
    for (auto& k : key) k = static_cast<uint8_t>(::lrand48());
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    std::vector<uint8_t> out(body + 16);
    int len = 0, tail = 0;
    EVP_EncryptInit_ex(ctx, EVP_aes_256_ecb(), nullptr, key, nullptr);
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    EVP_EncryptUpdate(ctx, out.data(), &len, &buf[256], static_cast<int>(body));
    EVP_EncryptFinal_ex(ctx, out.data() + len, &tail);
    EVP_CIPHER_CTX_free(ctx);
    std::copy(out.begin(), out.begin() + body, buf.begin() + 256);

    for (size_t i = 1; i < 256; ++i) buf[i] ^= l.mask;
    return buf;
}

inline std::string independentProtect(const std::string& json, const Layout& l,
                                      uint32_t rngSeed = 1) {
    std::mt19937 rng(rngSeed);
    std::string text;
    orvEncodePolicyText(layoutBytes(json, l, rng), rng, text, nullptr);
    return text;
}

// Exactly `size` bytes, any values: the codec must not care what the document holds.
inline std::string randomDocument(size_t size, std::mt19937& rng) {
    std::string doc(size, '\0');
    for (auto& ch : doc) ch = static_cast<char>(rng());
    return doc;
}

}  // namespace orvcrypto
