#pragma once
#include <string.h>

#include <initializer_list>
#include <string>
#include <unordered_map>

// Answers of document lookups, by the names looked up. Only answers that can no longer change
// belong here (the owner decides which); a hit then stands for the whole walk, reference chains
// included. Not locked: the owner serialises its users.
template <typename Answer>
class OrvSettledCache {
  public:
    // Null when the names are not known. Entries stay where they are until clear().
    Answer* find(std::initializer_list<const char*> names) {
        keyOf(names);
        auto it = mEntries.find(mKey);
        return it == mEntries.end() ? nullptr : &it->second;
    }
    // The entry for the names, value-initialised when they were not known.
    Answer& entry(std::initializer_list<const char*> names) {
        keyOf(names);
        return mEntries[mKey];
    }
    void store(std::initializer_list<const char*> names, const Answer& answer) {
        keyOf(names);
        mEntries.insert_or_assign(mKey, answer);
    }
    void clear() { mEntries.clear(); }

  private:
    // Each name ended by a NUL, which no name holds, so distinct lists never share a key. The key
    // is kept, so that a hit allocates nothing.
    void keyOf(std::initializer_list<const char*> names) {
        size_t total = 0;
        for (const char* name : names) total += strlen(name) + 1;
        mKey.resize(total);
        char* out = &mKey[0];
        for (const char* name : names) {
            const size_t length = strlen(name);
            memcpy(out, name, length);
            out += length;
            *out++ = '\0';
        }
    }

    std::string mKey;
    std::unordered_map<std::string, Answer> mEntries;
};
