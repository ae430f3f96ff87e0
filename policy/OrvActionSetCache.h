#pragma once
#include <json/json.h>

#include <string>
#include <unordered_map>

// Action sets already found, by application, state and key. Only answers that can no longer
// change belong here (the owner decides which); a hit then stands for the whole walk down the
// reference chain. Used by one thread at a time.
class OrvActionSetCache {
  public:
    struct Entry {
        Json::Value* set;        // null: there is none
        Json::Value* reference;  // the last "reference" followed, null when none was
    };

    // Null when the triple is not known; store() then files an answer for it.
    const Entry* find(const char* app, const char* state, const char* key);
    void store(const Entry& entry);
    void clear() { mEntries.clear(); }

  private:
    std::string mKey;  // the triple of the last find, reused so that a hit allocates nothing
    std::unordered_map<std::string, Entry> mEntries;
};
