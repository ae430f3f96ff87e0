#include "tools/codec/OrvPolicyText.h"

#include <string.h>

#include <array>

#include "crypto/OrvPolicyDecoder.h"

namespace {

constexpr int kFirst = 32;
constexpr int kLast = 126;
constexpr int kCount = kLast - kFirst + 1;

// The nibble the decoder derives from character `c` following `base`.
int nibble(int base, int c) {
    int d = c - base;
    if (d < 0) d += 94;
    return d & 15;
}

// Decodes the first byte with the decoder itself, so both can never disagree on its quirks.
int firstByte(char c0, char c1) {
    const char pair[2] = {c0, c1};
    uint8_t b = 0;
    if (!orv_policy_text_to_bytes(pair, 2, &b)) return -1;
    return b;
}

using Choices = std::vector<char>;

struct Tables {
    std::array<std::array<Choices, 16>, kCount> next;  // [base][nibble] -> characters
    std::array<std::vector<std::array<char, 2>>, 256> first;
    Tables() {
        for (int base = kFirst; base <= kLast; ++base) {
            for (int c = kFirst; c <= kLast; ++c) {
                next[base - kFirst][nibble(base, c)].push_back(static_cast<char>(c));
            }
        }
        for (int c0 = kFirst; c0 <= kLast; ++c0) {
            if (orvCouldStartJson(static_cast<char>(c0))) continue;
            for (int c1 = kFirst; c1 <= kLast; ++c1) {
                int b = firstByte(static_cast<char>(c0), static_cast<char>(c1));
                if (b >= 0) first[b].push_back({static_cast<char>(c0), static_cast<char>(c1)});
            }
        }
    }
};

const Tables& tables() {
    static const Tables t;
    return t;
}

template <typename T>
const T& pick(const std::vector<T>& v, std::mt19937& rng) {
    return v[std::uniform_int_distribution<size_t>(0, v.size() - 1)(rng)];
}

}  // namespace

bool orvCouldStartJson(char c) {
    // Beyond what the strict grammar opens with, lenient readers also take signs, dots,
    // single quotes, NaN/Infinity and dropped-value separators.
    static const char kOpeners[] = " \t\r\n0123456789-+.\"'[]{},/tfnIN";
    return c == '\0' || strchr(kOpeners, c) != nullptr;
}

bool orvEncodePolicyText(const std::vector<uint8_t>& bytes, std::mt19937& rng, std::string& out,
                         std::string* error) {
    if (bytes.empty()) {
        if (error) *error = "nothing to encode";
        return false;
    }
    const Tables& t = tables();
    const auto& firstChoices = t.first[bytes[0]];
    if (firstChoices.empty()) {
        if (error) *error = "no spelling for the first byte";
        return false;
    }
    out.assign(bytes.size() * 2, ' ');
    const auto& pair = pick(firstChoices, rng);
    out[0] = pair[0];
    out[1] = pair[1];
    for (size_t i = 1; i < bytes.size(); ++i) {
        const int base = static_cast<unsigned char>(out[2 * i - 1]);
        const char a = pick(t.next[base - kFirst][bytes[i] >> 4], rng);
        const char b = pick(t.next[static_cast<unsigned char>(a) - kFirst][bytes[i] & 15], rng);
        out[2 * i] = a;
        out[2 * i + 1] = b;
    }
    return true;
}
