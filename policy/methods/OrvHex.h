#pragma once
#include <vector>

// Both return 0 on success and log their own failures.

// "0x1F" style texts only; scanning stops quietly at the first non-hex character.
int hex2Int(const char* text, int& out);

// Pairs of hex digits separated by any one character ("12 34 AB"). A lower-case low digit
// yields a different byte ("0a" gives 0x2A): policies in the field depend on that.
int hexDataStringToByteArray(const char* text, std::vector<unsigned char>& out);
