#include "policy/OrvActionSetCache.h"

const OrvActionSetCache::Entry* OrvActionSetCache::find(const char* app, const char* state,
                                                        const char* key) {
    // NUL-separated: no name holds one, so distinct triples never share a key.
    mKey.assign(app);
    mKey.push_back('\0');
    mKey.append(state);
    mKey.push_back('\0');
    mKey.append(key);
    auto it = mEntries.find(mKey);
    return it == mEntries.end() ? nullptr : &it->second;
}

void OrvActionSetCache::store(const Entry& entry) {
    mEntries.insert_or_assign(mKey, entry);
}
