#include "policy/OrvJsonParser.h"

#include <string.h>

namespace {

// Integers of up to 18 digits cannot overflow; longer ones are left to JsonCpp.
constexpr size_t kMaxDigits = 18;

}  // namespace

bool OrvJsonParser::parse(const char* begin, const char* end, int maxNesting, Json::Value& root) {
    OrvJsonParser parser(begin, end, maxNesting);
    if (!parser.value(root, 0) || !parser.skipSpaceAndComments()) return false;
    // JsonCpp ignores what follows the root value; only a clean end is taken here.
    return parser.mAt == parser.mEnd;
}

void OrvJsonParser::skipSpace() {
    while (mAt < mEnd && (*mAt == ' ' || *mAt == '\t' || *mAt == '\n' || *mAt == '\r')) ++mAt;
}

// Comments stand where JsonCpp takes them: before a value or a member name, and after a value.
bool OrvJsonParser::skipSpaceAndComments() {
    for (;;) {
        skipSpace();
        if (mAt + 1 >= mEnd || mAt[0] != '/') return true;
        if (mAt[1] == '*') {
            const char* close = static_cast<const char*>(memmem(mAt + 2, mEnd - mAt - 2, "*/", 2));
            if (close == nullptr) return false;
            mAt = close + 2;
        } else if (mAt[1] == '/') {
            mAt += 2;
            while (mAt < mEnd && *mAt != '\n' && *mAt != '\r') ++mAt;
        } else {
            return false;
        }
    }
}

bool OrvJsonParser::value(Json::Value& out, int depth) {
    if (!skipSpaceAndComments() || mAt == mEnd) return false;
    switch (*mAt) {
        case '{':
            return object(out, depth);
        case '[':
            return array(out, depth);
        case '"': {
            const char *begin, *end;
            if (!string(begin, end)) return false;
            out = Json::Value(begin, end);
            return true;
        }
        case 't':
            out = Json::Value(true);
            return word("true", 4);
        case 'f':
            out = Json::Value(false);
            return word("false", 5);
        case 'n':
            out = Json::Value();
            return word("null", 4);
        default:
            return number(out);
    }
}

bool OrvJsonParser::object(Json::Value& out, int depth) {
    if (depth >= mMaxNesting) return false;
    ++mAt;
    out = Json::Value(Json::objectValue);
    if (!skipSpaceAndComments() || mAt == mEnd) return false;
    if (*mAt == '}') {
        ++mAt;
        return true;
    }
    for (;;) {
        const char *begin, *end;
        if (!skipSpaceAndComments() || mAt == mEnd || *mAt != '"' || !string(begin, end))
            return false;
        skipSpace();
        if (mAt == mEnd || *mAt != ':') return false;
        ++mAt;
        // A repeated name replaces the earlier value, as JsonCpp does.
        if (!value(*out.demand(begin, end), depth + 1) || !skipSpaceAndComments() || mAt == mEnd)
            return false;
        const char c = *mAt++;
        if (c == '}') return true;
        if (c != ',') return false;
    }
}

bool OrvJsonParser::array(Json::Value& out, int depth) {
    if (depth >= mMaxNesting) return false;
    ++mAt;
    out = Json::Value(Json::arrayValue);
    skipSpace();
    if (mAt < mEnd && *mAt == ']') {
        ++mAt;
        return true;
    }
    for (Json::ArrayIndex index = 0;; ++index) {
        if (!value(out[index], depth + 1) || !skipSpaceAndComments() || mAt == mEnd) return false;
        const char c = *mAt++;
        if (c == ']') return true;
        if (c != ',') return false;
    }
}

bool OrvJsonParser::string(const char*& begin, const char*& end) {
    begin = mAt + 1;
    const char* quote = static_cast<const char*>(memchr(begin, '"', mEnd - begin));
    if (quote == nullptr || memchr(begin, '\\', quote - begin) != nullptr) return false;
    end = quote;
    mAt = quote + 1;
    return true;
}

// Integers typed as Json::Reader types them: negative ones and those up to INT_MAX as Int,
// larger ones as UInt. Fractions and exponents are left to JsonCpp.
bool OrvJsonParser::number(Json::Value& out) {
    const bool negative = *mAt == '-';
    const char* digits = negative ? mAt + 1 : mAt;
    const char* p = digits;
    Json::Value::LargestUInt n = 0;
    while (p < mEnd && *p >= '0' && *p <= '9') n = n * 10 + static_cast<unsigned>(*p++ - '0');
    const size_t count = static_cast<size_t>(p - digits);
    if (count == 0 || count > kMaxDigits) return false;
    if (p < mEnd && (*p == '.' || *p == 'e' || *p == 'E')) return false;
    mAt = p;
    if (negative) {
        out = Json::Value(-static_cast<Json::Value::LargestInt>(n));
    } else if (n <= static_cast<Json::Value::LargestUInt>(Json::Value::maxInt)) {
        out = Json::Value(static_cast<Json::Value::LargestInt>(n));
    } else {
        out = Json::Value(n);
    }
    return true;
}

bool OrvJsonParser::word(const char* text, size_t length) {
    if (static_cast<size_t>(mEnd - mAt) < length || memcmp(mAt, text, length) != 0) return false;
    mAt += length;
    return true;
}
