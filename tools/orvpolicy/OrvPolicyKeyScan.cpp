#include "tools/orvpolicy/OrvPolicyKeyScan.h"

#include "tools/codec/OrvTextCursor.h"

namespace {

struct Frame {
    bool object;
    std::string path;
    bool expectKey = true;
    int index = 0;
    std::string key;  // the member whose value comes next
    std::map<std::string, OrvPolicyKeyScan::Position> keys;
};

std::string child(const Frame& f) {
    if (!f.object) return f.path + "[" + std::to_string(f.index) + "]";
    return f.path.empty() ? f.key : f.path + "." + f.key;
}

}  // namespace

OrvPolicyKeyScan::OrvPolicyKeyScan(const std::string& text) {
    std::vector<Frame> stack;
    OrvTextCursor at(text);
    // A value starts here: note where, inside an array or after a member's colon.
    auto valueStarts = [&]() -> std::string {
        if (stack.empty()) return "";
        Frame& f = stack.back();
        std::string path = child(f);
        if (!f.object) {
            mPositions.emplace(path, Position{at.line(), at.column()});
            ++f.index;
        }
        return path;
    };
    while (at.offset() < text.size()) {
        const size_t i = at.offset();
        const char c = text[i];
        if (c == '/' && i + 1 < text.size() && (text[i + 1] == '/' || text[i + 1] == '*')) {
            size_t end = text[i + 1] == '/' ? text.find('\n', i) : text.find("*/", i + 2);
            at.advanceTo(end == std::string::npos ? text.size()
                                                  : end + (text[i + 1] == '*' ? 2 : 0));
        } else if (c == '"') {
            size_t end = i + 1;
            std::string s;
            while (end < text.size() && text[end] != '"') {
                if (text[end] == '\\' && end + 1 < text.size()) s += text[end++];
                s += text[end++];
            }
            if (!stack.empty() && stack.back().object && stack.back().expectKey) {
                Frame& f = stack.back();
                Position here{at.line(), at.column()};
                auto seen = f.keys.find(s);
                f.key = s;
                if (seen != f.keys.end())
                    mDuplicates.push_back({child(f), s, seen->second, here});
                else
                    f.keys.emplace(s, here);
                mPositions.emplace(child(f), here);
                f.expectKey = false;
            } else {
                valueStarts();
            }
            at.advanceTo(end + 1);
        } else if (c == '{' || c == '[') {
            std::string path = valueStarts();
            Frame f;
            f.object = c == '{';
            f.path = path;
            stack.push_back(f);
            at.advanceTo(i + 1);
        } else if (c == '}' || c == ']') {
            if (!stack.empty()) stack.pop_back();
            at.advanceTo(i + 1);
        } else if (c == ',') {
            if (!stack.empty()) stack.back().expectKey = true;
            at.advanceTo(i + 1);
        } else if (c == ':' || c == ' ' || c == '\t' || c == '\r' || c == '\n') {
            at.advanceTo(i + 1);
        } else {
            valueStarts();
            size_t end = text.find_first_of(",]} \t\r\n/", i);
            at.advanceTo(end == std::string::npos ? text.size() : end);
        }
    }
}

bool OrvPolicyKeyScan::find(const std::string& path, Position& out) const {
    std::string p = path;
    for (;;) {
        auto it = mPositions.find(p);
        if (it != mPositions.end()) {
            out = it->second;
            return true;
        }
        size_t cut = p.find_last_of(".[");
        if (cut == std::string::npos || cut == 0) return false;
        p.erase(cut);
    }
}
