#pragma once
#include <stdint.h>

#include <string>

struct OrvProtectOptions {
    int mask = -1;         // 0..255, or -1 for random
    int seedPos = -1;      // 3..252, or -1 for random
    int64_t seed = -1;     // 0..0xFFFFFFFF, or -1 for random
    int padCount = -1;     // -1: pad to the next multiple of 16 (0..15); else exactly this
                           // many pad bytes, which must make the body a multiple of 16
    uint32_t rngSeed = 0;  // 0: seed the choices from the clock; else reproducible output
};

// Encodes plain JSON text into the printable protected form. false + *error on bad options.
bool orvProtectPolicy(const std::string& json, const OrvProtectOptions& opts, std::string& out,
                      std::string* error);

// Decodes and verifies protected text into plain JSON with the daemon's own decoder.
// false + *error on failure.
bool orvUnprotectPolicy(const std::string& text, std::string& json, std::string* error);
