#pragma once
#include <stddef.h>
#include <stdint.h>

#include <string>

// Protected policy files: printable text of 2N characters holding N bytes (mask, masked header
// with the key seed, AES-256-ECB body, SHA-256 digest). All return nonzero / true on success and
// write or fill nothing on failure.
int decrypt_orv_policy(const char* src, const char* dst);
int decrypt_policy_file(const std::string& src, const std::string& dst);

// The same decoding over text already in memory; `json` receives the plain document.
bool decode_orv_policy_text(const char* text, size_t size, std::string& json);

// The text layer alone: fills size / 2 bytes of `out`. False on a character outside 32..126.
bool orv_policy_text_to_bytes(const char* text, size_t size, uint8_t* out);

// Sizes a protected text can have: even, at most 4 MiB, N = size / 2 above 288 and a multiple
// of 16.
bool orv_policy_text_size_ok(size_t size);

constexpr size_t kOrvPolicyHeaderSize = 256;
constexpr size_t kOrvPolicyDigestSize = 32;
constexpr size_t kOrvPolicyMaxTextSize = 4u << 20;
