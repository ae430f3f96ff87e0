#define LOG_TAG "OrvActionManager"
#include "policy/OrvJsonActionDB.h"

#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/OrvDevicePath.h"
#include "core/OrvLockGuard.h"
#include "core/OrvLog.h"
#include "crypto/OrvPolicyDecoder.h"
#include "crypto/OrvPolicyFile.h"
#include "policy/OrvCycleCheck.h"
#include "policy/OrvGroupBounds.h"
#include "policy/OrvJsonParser.h"

static const char* const PARSER_VERSION = "v1.0";
static const char* const INTERMEDIATE_FILE = "/data/___orvtemp";
// JsonCpp's reader gives up on deeper documents by throwing; refuse them before it sees them.
static const int MAX_NESTING = 900;

OrvJsonActionDB::OrvJsonActionDB(Json::Value* root, bool encrypted)
    : OrvActionDB(encrypted), mRoot(root), mFallback(root) {
    pthread_mutex_init(&mDocLock, nullptr);
    if (OrvLogIsEnabled()) {
        ALOGD("OrvJsonActionDB constructor called (ver:%s, parser:%s)",
              memberText("version", "unknown").c_str(), memberText("parser", "unknown").c_str());
    }
}

OrvJsonActionDB::~OrvJsonActionDB() {
    ORV_LOGD("OrvJsonActionDB destructor called");
    delete mRoot;
    pthread_mutex_destroy(&mDocLock);
}

// Depth of brackets outside strings and comments, as far as the reader would see them.
static bool nestingWithinLimit(const std::string& text) {
    int depth = 0;
    size_t i = 0;
    const size_t n = text.size();
    while (i < n) {
        char c = text[i];
        if (c == '"') {
            for (++i; i < n && text[i] != '"'; ++i) {
                if (text[i] == '\\') ++i;
            }
        } else if (c == '/' && i + 1 < n && text[i + 1] == '*') {
            size_t end = text.find("*/", i + 2);
            i = end == std::string::npos ? n : end + 1;
        } else if (c == '/' && i + 1 < n && text[i + 1] == '/') {
            size_t end = text.find('\n', i + 2);
            i = end == std::string::npos ? n : end;
        } else if (c == '[' || c == '{') {
            if (++depth > MAX_NESTING) return false;
        } else if (c == ']' || c == '}') {
            --depth;
        }
        ++i;
    }
    return true;
}

bool OrvJsonActionDB::readPolicyFile(const char* path, std::string& text) {
    const char* reason = nullptr;
    if (OrvPolicyFile::read(path, OrvPolicyFile::kMaxPlainSize, text, reason)) return true;
    // A file that cannot be opened keeps the plain line; refusals say why.
    if (reason == OrvPolicyFile::kCannotOpen) {
        ALOGE("%s is not good", path);
    } else {
        ALOGE("%s is not good (%s)", path, reason);
    }
    return false;
}

void OrvJsonActionDB::removeIntermediateFile() {
    unlink(OrvDevicePath(INTERMEDIATE_FILE).c_str());
}

OrvJsonActionDB* OrvJsonActionDB::createDB(const char* path, bool encrypted) {
    if (path == nullptr) path = "";
    std::string text;
    if (encrypted) {
        const char* reason = nullptr;
        if (!OrvPolicyFile::read(path, kOrvPolicyMaxTextSize, text, reason)) {
            ALOGE("decrypt DB %s failed", path);
            return nullptr;
        }
    } else if (!readPolicyFile(path, text)) {
        return nullptr;
    }
    return createDBFromText(path, text, encrypted);
}

OrvJsonActionDB* OrvJsonActionDB::createDBFromText(const char* path, const std::string& content,
                                                   bool encrypted) {
    if (path == nullptr) path = "";
    std::string intermediate;
    std::string plain;
    if (encrypted) {
        if (!decode_orv_policy_text(content.data(), content.size(), plain)) {
            ALOGE("decrypt DB %s failed", path);
            return nullptr;
        }
        ORV_LOGD("decrypt DB %s success", path);
        // The intermediate file, readable by orvd alone, where /data can take it; a full or
        // read-only /data leaves the plain text in memory only, and the load goes on.
        intermediate = OrvDevicePath(INTERMEDIATE_FILE);
        unlink(intermediate.c_str());  // a file left behind keeps its mode through O_TRUNC
        if (!OrvPolicyFile::write(intermediate.c_str(), plain.data(), plain.size(), 0600)) {
            unlink(intermediate.c_str());
            intermediate.clear();
        }
    }
    const std::string& text = encrypted ? plain : content;
    const char* stage = encrypted ? "after decrypt" : "before decrypt";
    Json::Value* root = new Json::Value();
    Json::Reader reader;
    // What the quick parser leaves (escapes, fractions, anything malformed or too deep) goes to
    // JsonCpp, whose verdict and messages stand; what it takes nests no deeper than the guard
    // allows, so only the rest is scanned for depth. The pointer form parses in place.
    bool parsed = OrvJsonParser::parse(text.data(), text.data() + text.size(), MAX_NESTING, *root);
    if (!parsed) {
        if (!nestingWithinLimit(text)) {
            ALOGE("Failed to parse %s %s:\n%s", path, stage, "* Nesting too deep\n");
            delete root;
            return nullptr;
        }
        *root = Json::Value();
        parsed = reader.parse(text.data(), text.data() + text.size(), *root, true);
    }
    if (!parsed) {
        ALOGE("Failed to parse %s %s:\n%s", path, stage, reader.getFormattedErrorMessages().c_str());
        delete root;
        return nullptr;
    }
    OrvJsonActionDB* db = new OrvJsonActionDB(root, encrypted);
    if (!intermediate.empty()) unlink(intermediate.c_str());
    return db;
}

// Takes `keys` from `cur` on with the inserting operator[], as far as the nodes on the way are
// objects or null; the number of members taken. mDocLock held.
static size_t walkFrom(Json::Value*& cur, std::initializer_list<const char*> keys) {
    size_t depth = 0;
    for (const char* key : keys) {
        if (!cur->isNull() && !cur->isObject()) break;
        cur = &(*cur)[key ? key : ""];
        ++depth;
    }
    return depth;
}

Json::Value* OrvJsonActionDB::walk(std::initializer_list<const char*> keys, size_t& depth) {
    Json::Value* cur = mRoot;
    depth = walkFrom(cur, keys);
    return depth == keys.size() ? cur : nullptr;
}

Json::Value* OrvJsonActionDB::lookup(std::initializer_list<const char*> keys) {
    if (mRoot == nullptr) return nullptr;
    size_t depth = 0;
    Json::Value* cur;
    {
        OrvLockGuard guard(mDocLock);
        cur = walk(keys, depth);
    }
    if (cur == nullptr) logNotObject(keys, depth);
    return cur;
}

bool OrvJsonActionDB::lookupScalar(std::initializer_list<const char*> keys, Json::ValueType& type,
                                   std::string& text) {
    if (mRoot == nullptr) return false;
    size_t depth = 0;
    Json::Value* cur;
    {
        OrvLockGuard guard(mDocLock);
        cur = walk(keys, depth);
        if (cur != nullptr) {
            type = cur->type();
            if (!cur->isNull() && !cur->isArray() && !cur->isObject()) text = cur->asString();
        }
    }
    if (cur == nullptr) logNotObject(keys, depth);
    return cur != nullptr;
}

void OrvJsonActionDB::logNotObject(std::initializer_list<const char*> keys, size_t depth) {
    std::string where;
    size_t i = 0;
    for (const char* key : keys) {
        if (i++ == depth) break;
        if (!where.empty()) where += ".";
        where += key ? key : "";
    }
    ALOGE("Invalid policy DB: %s is not an object", where.empty() ? "(root)" : where.c_str());
}

// One link of an action set's reference chain in a single walk: the set and, when it is null,
// the application's "reference" (as the two lookups would take them, with the same insertions).
// false when a node on the way is malformed, for the lookups to report.
bool OrvJsonActionDB::actionLink(const char* app, const char* state, const char* key,
                                 Json::Value** set, Json::Value** reference) {
    if (mRoot == nullptr) return false;
    OrvLockGuard guard(mDocLock);
    Json::Value* action = mRoot;
    bool ok = walkFrom(action, {"applications", app, "action"}) == 3;
    Json::Value* cur = action;
    ok = ok && walkFrom(cur, {state, key}) == 2;
    if (ok) {
        *set = cur;
        *reference = action;
        if (cur->isNull()) walkFrom(*reference, {"reference"});
    }
    return ok;
}

std::string OrvJsonActionDB::memberText(const char* key, const char* absent) {
    Json::Value* v = lookup({key});
    if (v == nullptr || v->isNull()) return absent;
    // Scalars read as JsonCpp prints them ("version": 12 is "12"); only containers cannot.
    if (!v->isConvertibleTo(Json::stringValue)) {
        ALOGE("Invalid policy DB: %s is not text", key);
        return absent;
    }
    return v->asString();
}

float OrvJsonActionDB::parseVersion(const char* text) {
    float value = 0.0f;
    if (text == nullptr || sscanf(text, " %*c%f", &value) != 1) return 0.0f;
    return value;
}

float OrvJsonActionDB::getParserVersion() {
    return parseVersion(PARSER_VERSION);
}

const char* OrvJsonActionDB::getParserVersionString() {
    return PARSER_VERSION;
}

float OrvJsonActionDB::getDBVersion() {
    return parseVersion(memberText("version", "v-1").c_str());
}

std::string OrvJsonActionDB::getDBVersionString() {
    return memberText("version", "unknown");
}

float OrvJsonActionDB::getDBMinSupportParserVersion() {
    return parseVersion(memberText("parser", "v999999").c_str());
}

std::string OrvJsonActionDB::getDBMinSupportParserVersionString() {
    return memberText("parser", "unknown");
}

std::string OrvJsonActionDB::findCycle() {
    if (mRoot == nullptr) return std::string();
    OrvLockGuard guard(mDocLock);
    std::string cycle = OrvCycleCheck::find(*mRoot);
    if (cycle.empty()) {
        std::vector<OrvGroupBounds::Finding> over = OrvGroupBounds::check(*mRoot);
        if (!over.empty()) cycle = over.front().message;
    }
    return cycle;
}

bool OrvJsonActionDB::findApp(const char* appName) {
    if (appName == nullptr) {
        ALOGE("no appName");
        return false;
    }
    // An unlisted application is looked up as "*", so it never grows the document.
    if (mFallback.active() && mFallback.entryFor(appName) != appName) return true;
    Json::ValueType type = Json::nullValue;
    std::string unused;
    return lookupScalar({"applications", appName}, type, unused) && type != Json::nullValue;
}

bool OrvJsonActionDB::findAppParam(const char* appName, const char* paramName, std::string& out) {
    if (appName == nullptr || paramName == nullptr) {
        ALOGE("no appName or paramName");
        return false;
    }
    // Every state change asks for its state's time-out; the walk is what it costs.
    {
        OrvLockGuard guard(mDocLock);
        if (const ParamAnswer* hit = mParamCache.find({appName, paramName})) {
            if (hit->found) out = hit->text;
            return hit->found;
        }
    }
    bool settled = true;
    const bool found = resolveParam(appName, paramName, out, settled);
    if (settled) {
        OrvLockGuard guard(mDocLock);
        mParamCache.store({appName, paramName}, {found, found ? out : std::string()});
    }
    return found;
}

bool OrvJsonActionDB::resolveParam(const char* appName, const char* paramName, std::string& out,
                                   bool& settled) {
    const std::string entry = mFallback.entryFor(appName);
    // Each answer is checked as it is, since the text read is only what `out` then holds.
    auto own = [&](const std::string& app) {
        std::string text;
        const bool found = findOwnParam(app, paramName, text);
        settled = settled && isSettledParam(app, paramName, found, text);
        if (found) out = text;
        return found;
    };
    if (own(entry)) return true;
    // A state taken from the fallback brings its time-out along.
    if (!mFallback.active() || entry == OrvFallbackProfile::kName) return false;
    const std::string key = paramName;
    const size_t suffix = key.size() > 8 ? key.size() - 8 : 0;
    if (suffix == 0 || key.compare(suffix, 8, "_timeout") != 0 ||
        mFallback.definesState(entry, key.substr(0, suffix).c_str())) {
        return false;
    }
    return own(OrvFallbackProfile::kName);
}

bool OrvJsonActionDB::findOwnParam(const std::string& appName, const char* paramName,
                                   std::string& out) {
    // Each node is read under the document lock; references are followed in a loop, so a long
    // chain cannot exhaust the stack (loaded documents hold no cycle).
    std::string app = appName;
    for (;;) {
        if (!findApp(app.c_str())) return false;
        Json::ValueType type = Json::nullValue;
        std::string text;
        if (!lookupScalar({"applications", app.c_str(), "param", paramName}, type, text)) {
            return false;  // the way there is malformed, and logged
        }
        if (type != Json::nullValue) {
            if (type != Json::arrayValue && type != Json::objectValue) {
                out = text;
                return true;
            }
            ALOGE("Invalid policy DB: applications.%s.param.%s is not text", app.c_str(), paramName);
        }
        if (!lookupScalar({"applications", app.c_str(), "param", "reference"}, type, text) ||
            type == Json::nullValue) {
            return false;
        }
        if (type != Json::stringValue) {
            ALOGE("Invalid policy DB: applications.%s.param.reference is not text", app.c_str());
            return false;
        }
        app = text;
    }
}

// Links of a parameter's reference chain that isSettledParam follows before it gives up; the load
// refuses loops, so only an absurd chain is this long.
static const int kMaxSettledParamLinks = 64;

bool OrvJsonActionDB::isSettledParam(const std::string& appName, const char* paramName, bool found,
                                     const std::string& text) {
    auto child = [](const Json::Value* node, const char* name) -> const Json::Value* {
        return node != nullptr && node->isObject() ? node->find(name, name + strlen(name)) : nullptr;
    };
    OrvLockGuard guard(mDocLock);
    const Json::Value* apps = child(mRoot, "applications");
    if (apps == nullptr || !apps->isObject()) return false;
    std::string name = appName;
    for (int link = 0; link < kMaxSettledParamLinks; ++link) {
        const Json::Value* app = child(apps, name.c_str());
        if (app == nullptr || app->isNull()) return !found;
        const Json::Value* param = child(app, "param");
        if (param == nullptr || !param->isObject()) return false;
        const Json::Value* value = child(param, paramName);
        if (value != nullptr && !value->isNull()) {
            if (value->isArray() || value->isObject()) return false;
            return found && value->asString() == text;
        }
        const Json::Value* next = child(param, "reference");
        if (next == nullptr || next->isNull()) return !found;
        if (!next->isString()) return false;
        name = next->asString();
    }
    return false;
}

Json::Value* OrvJsonActionDB::getActionSet(const char* appName, const char* stateName,
                                           const char* key, Json::Value** referenceOut) {
    std::string app = appName ? appName : "";
    for (;;) {
        Json::Value *set = nullptr, *ref = nullptr;
        if (actionLink(app.c_str(), stateName, key, &set, &ref)) {
            if (!set->isNull()) return set;
        } else {
            set = lookup({"applications", app.c_str(), "action", stateName, key});
            if (set != nullptr && !set->isNull()) return set;
            ref = lookup({"applications", app.c_str(), "action", "reference"});
        }
        if (ref == nullptr || ref->isNull()) {
            if (referenceOut) *referenceOut = nullptr;
            return nullptr;
        }
        if (!ref->isString()) {
            ALOGE("Invalid policy DB: applications.%s.action.reference is not text", app.c_str());
            if (referenceOut) *referenceOut = nullptr;
            return nullptr;
        }
        if (referenceOut) *referenceOut = ref;
        app = ref->asString();
    }
}

void OrvJsonActionDB::dumpState(std::string& out) {
    out += "   Action parser   : ";
    out += getParserVersionString();
    out += "\n   PolicyDB version: " + getDBVersionString();
    out += "\n   PolicyDB parser version: " + getDBMinSupportParserVersionString();
    out += "\n   PolicyDB Encrypted : ";
    out += mEncrypted ? "1" : "0";
    out += "\n   Last Done Action Set: " + getLastActionSet();
    out += "\n   Current Action Set  : " + getCurActionInfoStr();
    out += "\n";
}
