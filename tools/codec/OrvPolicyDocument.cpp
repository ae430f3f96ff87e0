#include "tools/codec/OrvPolicyDocument.h"

#include <errno.h>
#include <stdio.h>

#include "tools/codec/OrvPolicyEncoder.h"
#include "tools/codec/OrvTextCursor.h"

namespace {

// A protected file is one long line of printable characters, an even number of them.
bool looksProtected(const std::string& text) {
    if (text.size() < 608) return false;
    for (unsigned char c : text)
        if (c < 32 || c > 126) return false;
    return text.size() % 2 == 0;
}

}  // namespace

bool OrvPolicyDocument::readFile(const std::string& path, std::string& out) {
    // stdio, not a stream: a directory opens but fails to read, and errno then says so.
    FILE* in = fopen(path.c_str(), "rb");
    if (!in) return false;
    out.clear();
    char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), in)) > 0) out.append(buf, n);
    const bool ok = !ferror(in);
    const int err = errno;
    fclose(in);
    errno = err;
    return ok;
}

bool OrvPolicyDocument::parse(const std::string& text, Json::Value& root,
                              std::vector<std::string>& problems) {
    Json::Reader reader;
    if (reader.parse(text, root, true)) return true;
    std::vector<Json::Reader::StructuredError> errors = reader.getStructuredErrors();
    for (const auto& e : errors) {
        OrvTextCursor at(text);
        at.advanceTo(static_cast<size_t>(e.offset_start));
        std::string message = e.message;
        while (!message.empty() && message.back() == '\n') message.pop_back();
        problems.push_back(std::to_string(at.line()) + ":" + std::to_string(at.column()) + ": " +
                           message);
    }
    if (problems.empty()) problems.push_back("1:1: not a JSON document");
    return false;
}

OrvPolicyDocument::Status OrvPolicyDocument::load(const std::string& path) {
    std::string text;
    if (!readFile(path, text)) {
        mProblems.push_back("cannot read the file");
        return UNREADABLE;
    }
    std::vector<std::string> plainProblems;
    if (parse(text, mRoot, plainProblems)) {
        mJson = text;
        return OK;
    }
    std::string decoded, error;
    if (orvUnprotectPolicy(text, decoded, &error)) {
        mProtected = true;
        mJson = decoded;
        if (parse(decoded, mRoot, mProblems)) return OK;
        for (auto& p : mProblems) p = "after decrypt " + p;
        return INVALID;
    }
    if (looksProtected(text)) {
        mProblems.push_back("1:1: not JSON, and not a valid protected file either (" + error + ")");
        return INVALID;
    }
    mProblems = plainProblems;
    return INVALID;
}
