#pragma once
#include <stdint.h>

#include <random>
#include <string>
#include <vector>

// Printable text form of a protected policy's byte buffer. Decoding keeps only nibbles and wraps
// differences by 94, so each byte has many spellings; one is chosen at random from `rng`.
// The first character is never one that could open a JSON value, since loaders try plain JSON
// first. False + *error if `bytes` is empty.
bool orvEncodePolicyText(const std::vector<uint8_t>& bytes, std::mt19937& rng, std::string& out,
                         std::string* error);

// True for characters a lenient JSON reader could take as the start of a document.
bool orvCouldStartJson(char c);
