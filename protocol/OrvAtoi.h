#pragma once
#include <errno.h>
#include <limits.h>

// atoi() to the letter, without strtol's locale and base machinery, which cost more than the
// rest of a frame: C-locale white space, one optional sign, decimal digits, and on overflow
// strtol's clamp (errno ERANGE) before the cut to int.
inline int OrvAtoi(const char* s) {
    while (*s == ' ' || (*s >= '\t' && *s <= '\r')) ++s;
    const bool negative = *s == '-';
    if (*s == '-' || *s == '+') ++s;
    // Eighteen digits cannot overflow; only a longer run pays for the range check.
    unsigned long value = 0;
    const char* const digits = s;
    for (; *s >= '0' && *s <= '9' && s - digits < 18; ++s) value = value * 10 + (*s - '0');
    const unsigned long limit = negative ? 0ul - static_cast<unsigned long>(LONG_MIN) : LONG_MAX;
    bool over = false;
    for (; *s >= '0' && *s <= '9'; ++s) {
        const unsigned long digit = static_cast<unsigned long>(*s - '0');
        if (value > (limit - digit) / 10) {
            over = true;
        } else if (!over) {
            value = value * 10 + digit;
        }
    }
    long result;
    if (over) {
        errno = ERANGE;
        result = negative ? LONG_MIN : LONG_MAX;
    } else {
        result = negative ? static_cast<long>(0ul - value) : static_cast<long>(value);
    }
    return static_cast<int>(result);
}
