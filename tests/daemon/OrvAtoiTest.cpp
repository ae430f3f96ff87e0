#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <random>
#include <string>

#include "protocol/OrvAtoi.h"

namespace {

// The C library's atoi is the reference, errno included.
void expectLikeAtoi(const std::string& text) {
    errno = 0;
    const int want = atoi(text.c_str());
    const int wantErrno = errno;
    errno = 0;
    const int got = OrvAtoi(text.c_str());
    EXPECT_EQ(std::make_pair(want, wantErrno), std::make_pair(got, errno)) << '"' << text << '"';
}

TEST(OrvAtoi, EdgesOfAtoi) {
    const char* cases[] = {
        // empty, blanks, signs
        "",
        " ",
        "-",
        "+",
        "+-3",
        "-+3",
        " \t\n\v\f\r-7",
        "\x1c\x35",  // a file separator, then '5'
        "+0",
        "-0",
        "007",
        // stops at the first non-digit
        "12abc",
        "1;2",
        ",3",
        "33,4]x",
        "4]",
        "0x10",
        "1e3",
        "--1",
        "1 2",
        // the int range and past it: the cut to int of what strtol returns
        "2147483647",
        "2147483648",
        "-2147483648",
        "-2147483649",
        "4294967296",
        "4294967295",
        // strtol's own range and its clamp
        "9223372036854775807",
        "9223372036854775808",
        "-9223372036854775808",
        "-9223372036854775809",
        "99999999999999999999999",
        "-99999999999999999999999",
        "18446744073709551616",
        "000000000000000000000000000000000042",
    };
    for (const char* text : cases) expectLikeAtoi(text);
}

TEST(OrvAtoi, AgreesWithAtoiOnRandomText) {
    const char kAlphabet[] = " \t+-0123456789;,]x";
    std::mt19937 rng(7);
    std::uniform_int_distribution<size_t> pick(0, sizeof(kAlphabet) - 2), length(0, 24);
    for (int i = 0; i < 20000; ++i) {
        std::string text(length(rng), ' ');
        for (char& c : text) c = kAlphabet[pick(rng)];
        expectLikeAtoi(text);
    }
}

}  // namespace
