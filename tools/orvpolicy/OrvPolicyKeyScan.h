#pragma once
// A pass over a policy's JSON text that JsonCpp does not offer: where each member and element
// starts, and which keys an object repeats (JsonCpp keeps the last silently).
#include <map>
#include <string>
#include <vector>

class OrvPolicyKeyScan {
  public:
    struct Position {
        int line = 0;
        int column = 0;
    };
    struct Duplicate {
        std::string path;  // dotted, as the checker names places: "applications.com.a"
        std::string key;
        Position first;
        Position again;
    };

    // `text` must be valid JSON (comments allowed).
    explicit OrvPolicyKeyScan(const std::string& text);

    // Where the value at `path` starts ("applications.com.a.action.run.policy[1]"), or the
    // nearest enclosing place that has one; false when none does.
    bool find(const std::string& path, Position& out) const;
    const std::vector<Duplicate>& duplicates() const { return mDuplicates; }

  private:
    std::map<std::string, Position> mPositions;
    std::vector<Duplicate> mDuplicates;
};
