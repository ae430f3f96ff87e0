// Policy documents and what runs them: each input is a document, then (after a 0xff byte) a
// script of actions. The document goes through the daemon's file loading (size and type checks,
// nesting guard, parser, version and cycle checks); when it is accepted, the script drives
// app switches, state changes, events and queries through the database, methods included.
//
// Every method acts on paths, so the document is confined to a temporary root first: strings
// that start with "/" are moved under it, ".." and JSON escapes that could spell either are
// defused. Descriptors the ioctl methods keep are closed after each input, or the run would
// end in EMFILE.
#include <cutils/properties.h>
#include <dirent.h>
#include <json/json.h>
#include <orvhost/host.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "core/OrvLog.h"
#include "policy/OrvActionDB.h"
#include "policy/OrvActionManager.h"
#include "policy/OrvJsonParser.h"

namespace {

using Action = OrvActionManager::OrvAction;

std::string gRoot;
std::string gPolicy;
OrvActionManager* gManager = nullptr;

void dropLog(int, const char*, const char*, void*) {}

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
        text.replace(at, from.size(), to);
}

std::string confine(std::string doc) {
    replaceAll(doc, "\\u", "_u");
    replaceAll(doc, "\\/", "_/");
    while (doc.find("..") != std::string::npos) replaceAll(doc, "..", "_.");
    replaceAll(doc, "\"/", "\"" + gRoot + "/");
    return doc;
}

// Closes what the methods left open under the root; the fuzzer's own descriptors stay.
void closeKeptDescriptors() {
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return;
    std::vector<int> fds;
    char link[4096];
    while (dirent* e = readdir(dir)) {
        int fd = atoi(e->d_name);
        if (fd <= 2 || fd == dirfd(dir)) continue;
        std::string path = std::string("/proc/self/fd/") + e->d_name;
        ssize_t n = readlink(path.c_str(), link, sizeof(link) - 1);
        if (n > 0 && std::string(link, n).rfind(gRoot + "/", 0) == 0) fds.push_back(fd);
    }
    closedir(dir);
    for (int fd : fds) close(fd);
}

const char* pick(const std::vector<std::string>& names, uint8_t byte) {
    return names[byte % names.size()].c_str();
}

// Json::Value's == lets 1 and 1u be equal; the trees must match in types too.
bool sameTree(const Json::Value& a, const Json::Value& b) {
    if (a.type() != b.type()) return false;
    if (a.isObject()) {
        if (a.getMemberNames() != b.getMemberNames()) return false;
        for (auto it = a.begin(); it != a.end(); ++it) {
            const std::string name = it.name();
            const Json::Value* other = b.find(name.data(), name.data() + name.size());
            if (other == nullptr || !sameTree(*it, *other)) return false;
        }
        return true;
    }
    if (a.isArray()) {
        if (a.size() != b.size()) return false;
        for (Json::ArrayIndex i = 0; i < a.size(); ++i)
            if (!sameTree(a[i], b[i])) return false;
        return true;
    }
    return a == b;
}

// A loaded document is shallow enough for the reader. The quick parser may decline it, but
// what it takes must be what the reader takes, as the reader builds it.
void checkQuickParser(const std::string& doc) {
    Json::Value quick, slow;
    if (!OrvJsonParser::parse(doc.data(), doc.data() + doc.size(), 900, quick)) return;
    if (!Json::Reader().parse(doc.data(), doc.data() + doc.size(), slow, true) ||
        !sameTree(quick, slow))
        abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    char dir[] = "/tmp/orvfuzz-policy.XXXXXX";
    if (!mkdtemp(dir)) abort();
    gRoot = dir;
    setenv("ORV_ROOT", dir, 1);
    mkdir((gRoot + "/data").c_str(), 0755);
    mkdir((gRoot + "/sys").c_str(), 0755);
    // Targets for the methods: a writable node and a readable one.
    std::ofstream(gRoot + "/sys/node") << "0";
    std::ofstream(gRoot + "/sys/value") << "1234";
    if (chdir(dir) != 0) abort();
    gPolicy = gRoot + "/data/orvpolicy";
    orvhost_set_log_hook(dropLog, nullptr, false);
    property_set(PROP_LOG_ENABLE, "1");
    OrvLogUpdateToggle();
    gManager = new OrvActionManager();  // never started: only its loading is used
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const uint8_t* split = static_cast<const uint8_t*>(memchr(data, 0xff, size));
    const size_t docSize = split ? static_cast<size_t>(split - data) : size;
    std::string doc = confine(std::string(reinterpret_cast<const char*>(data), docSize));
    std::ofstream(gPolicy, std::ios::binary | std::ios::trunc) << doc;
    OrvActionDB* db = gManager->loadDBFromfile(gPolicy.c_str());
    if (db == nullptr) return 0;
    checkQuickParser(doc);

    std::vector<std::string> apps = {"", "com.a", "A"};
    Json::Value root;
    if (Json::Reader().parse(doc, root) && root.isObject() && root["applications"].isObject()) {
        for (const std::string& name : root["applications"].getMemberNames()) apps.push_back(name);
    }
    static const std::vector<std::string> states = {"launch", "run",  "reset", "gesture_tap",
                                                    "list",   "idle", "x"};
    static const std::vector<std::string> events = {"touch", "boost", "on_enter", "x"};
    static const std::vector<std::string> params = {"event_mask", "thermal_mask", "p", "reference"};
    db->executePolicyReset();
    const uint8_t* script = split ? split + 1 : data + size;
    const size_t steps = static_cast<size_t>(data + size - script) / 4;
    for (size_t i = 0; i < steps && i < 64; ++i) {
        const uint8_t* s = script + 4 * i;
        const char* app = pick(apps, s[1]);
        const char* other = pick(apps, s[3]);
        const char* state = pick(states, s[2]);
        std::string text;
        switch (s[0] % 6) {
            case 0: {
                Action a(other, 10, 11, pick(states, s[3] >> 4), app, 20, 21, state);
                db->executeAppChangeAction(&a);
                break;
            }
            case 5: {  // an app switch as the action manager runs it
                Action a(other, 10, 11, pick(states, s[3] >> 4), app, 20, 21, state);
                db->executeOnExitAction(&a);
                db->executeDefaultResetAction(&a);
                db->executeOnEnterAction(&a);
                db->executePolicyAction(&a);
                break;
            }
            case 1: {
                Action a(pick(states, s[3]), state, app, 20, 21);
                db->executeStateChangeAction(&a);
                break;
            }
            case 2: {
                Action a(app, state, 20, -1, pick(events, s[3]));
                db->executeEventAction(&a);
                break;
            }
            case 3:
                db->findAppParam(app, pick(params, s[3]), text);
                break;
            default:
                db->dumpState(text);
                break;
        }
    }
    delete db;
    closeKeptDescriptors();
    return 0;
}
