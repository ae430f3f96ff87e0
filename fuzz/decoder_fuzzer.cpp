// Protected policy files. Every input is tried as protected text by the daemon's decoder (it
// must refuse or decode without fault), and, as a plain document, encoded by the project's
// encoder with choices taken from the input and decoded back: from memory and through the
// file path the daemon uses, both must give the document back byte for byte.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "crypto/OrvPolicyDecoder.h"
#include "crypto/OrvPolicyFile.h"
#include "tools/codec/OrvPolicyEncoder.h"

namespace {

std::string gDir;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    char dir[] = "/tmp/orvfuzz-decoder.XXXXXX";
    if (!mkdtemp(dir)) abort();
    gDir = dir;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* text = reinterpret_cast<const char*>(data);
    std::string json;
    if (decode_orv_policy_text(text, size, json)) {
        // Anything the decoder accepts has a valid digest; it can only be shorter.
        if (json.size() + kOrvPolicyHeaderSize + kOrvPolicyDigestSize > size / 2) abort();
    }

    if (size < 8) return 0;
    OrvProtectOptions opts;
    opts.mask = data[0];
    opts.seedPos = 3 + data[1] % 250;
    opts.seed = static_cast<int64_t>(data[2]) | static_cast<int64_t>(data[3]) << 8 |
                static_cast<int64_t>(data[4]) << 16 | static_cast<int64_t>(data[5]) << 24;
    opts.rngSeed = 1u + data[6];
    const std::string plain(text + 8, size - 8);
    std::string protectedText, error;
    if (!orvProtectPolicy(plain, opts, protectedText, &error)) abort();

    std::string decoded;
    if (!decode_orv_policy_text(protectedText.data(), protectedText.size(), decoded)) abort();
    if (decoded != plain) abort();

    const std::string src = gDir + "/in", dst = gDir + "/out";
    if (!OrvPolicyFile::write(src.c_str(), protectedText.data(), protectedText.size())) abort();
    if (!decrypt_policy_file(src, dst)) abort();
    std::string fromFile;
    const char* reason = nullptr;
    if (!OrvPolicyFile::read(dst.c_str(), OrvPolicyFile::kMaxPlainSize, fromFile, reason)) abort();
    if (fromFile != plain) abort();
    return 0;
}
