#include "tools/orvctl/OrvCtlUpdate.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "policy/OrvJsonActionDB.h"
#include "tools/codec/OrvPolicyDocument.h"
#include "tools/orvctl/OrvCtlClock.h"
#include "tools/orvctl/OrvCtlSession.h"

namespace {

std::string absolute(const std::string& path) {
    if (!path.empty() && path[0] == '/') return path;
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof(cwd)) == nullptr) return path;
    return std::string(cwd) + "/" + path;
}

std::string readAll(const std::string& path) {
    std::string text;
    OrvPolicyDocument::readFile(path, text);
    return text;
}

}  // namespace

std::string OrvCtlUpdate::versionInDump(const std::string& dump) {
    const std::string key = "   PolicyDB version: ";
    size_t at = dump.find(key);
    if (at == std::string::npos) return "";
    at += key.size();
    return dump.substr(at, dump.find('\n', at) - at);
}

int OrvCtlUpdate::run(const std::vector<std::string>& args) {
    if (args.size() != 1) {
        fprintf(stderr, "orvctl: usage: update PATH\n");
        return OrvCtlSession::EXIT_USAGE;
    }
    // orvd opens the path from its own working directory, which is not ours.
    const std::string path = absolute(args[0]);
    OrvPolicyDocument doc;
    switch (doc.load(path)) {
        case OrvPolicyDocument::UNREADABLE:
            fprintf(stderr, "orvctl: update: cannot read %s (%s); nothing sent\n", path.c_str(),
                    strerror(errno));
            return OrvCtlSession::EXIT_REFUSED;
        case OrvPolicyDocument::INVALID:
            for (const auto& p : doc.problems())
                fprintf(stderr, "orvctl: update: %s:%s\n", path.c_str(), p.c_str());
            fprintf(stderr, "orvctl: update: orvd would refuse %s; nothing sent\n", path.c_str());
            return OrvCtlSession::EXIT_REFUSED;
        case OrvPolicyDocument::OK:
            break;
    }
    // The engine's own reading of the versions, on a copy of the document.
    OrvJsonActionDB candidate(new Json::Value(doc.root()), doc.isProtected());
    if (candidate.getDBMinSupportParserVersion() > candidate.getParserVersion()) {
        fprintf(stderr, "orvctl: update: %s needs parser %s; orvd reads up to %s; nothing sent\n",
                path.c_str(), candidate.getDBMinSupportParserVersionString().c_str(),
                candidate.getParserVersionString());
        return OrvCtlSession::EXIT_REFUSED;
    }
    std::string dump;
    int status = mSession.query(orv::DUMP_STATE, "", dump);
    if (status != OrvCtlSession::EXIT_OK) return status;
    const std::string running = versionInDump(dump);
    const float current = running.empty() ? 0.0f : OrvJsonActionDB::parseVersion(running.c_str());
    const float offered = candidate.getDBVersion();
    if (!(offered > current)) {
        fprintf(stderr,
                "orvctl: update: %s is version %s (%.2f), orvd runs %s (%.2f) and loads only "
                "newer versions; nothing sent\n",
                path.c_str(), candidate.getDBVersionString().c_str(), offered,
                running.empty() ? "none" : running.c_str(), current);
        return OrvCtlSession::EXIT_REFUSED;
    }
    fprintf(stderr,
            "orvctl: update: %s (version %s, was %s): orvd moves the file to its policy "
            "location, and it takes effect at the next application switch\n",
            path.c_str(), candidate.getDBVersionString().c_str(),
            running.empty() ? "none" : running.c_str());

    // Only what orvd logs from now on is its answer to this file.
    const size_t logStart = mSession.logPath().empty() ? 0 : readAll(mSession.logPath()).size();
    OrvConnection conn;
    if (!mSession.connect(conn)) return OrvCtlSession::EXIT_UNREACHABLE;
    std::string error;
    if (!conn.send(orv::frame(orv::CONFIGURATION_UPDATE, path), error)) {
        fprintf(stderr, "orvctl: %s\n", error.c_str());
        return OrvCtlSession::EXIT_UNREACHABLE;
    }
    switch (awaitOutcome(path, logStart)) {
        case 1:
            printf("accepted: version %s is ready for the next application switch\n",
                   candidate.getDBVersionString().c_str());
            return OrvCtlSession::EXIT_OK;
        case 0:
            fprintf(stderr, "orvctl: update: orvd refused %s (see its log)\n", path.c_str());
            return OrvCtlSession::EXIT_REFUSED;
        default:
            fprintf(stderr, "orvctl: update: orvd did not confirm %s within %d ms (see its log)\n",
                    path.c_str(), mSession.timeoutMs());
            return OrvCtlSession::EXIT_NO_REPLY;
    }
}

int OrvCtlUpdate::awaitOutcome(const std::string& path, size_t start) {
    const std::string accepted = "new DB " + path + " is prepared to update)";
    const std::string refused = "load new DB " + path + " failed)";
    const std::string& log = mSession.logPath();
    const long long deadline = OrvCtlClock::nowMs() + mSession.timeoutMs();
    bool logged = false;
    for (;;) {
        if (!log.empty() && !logged) {
            std::string text = readAll(log);
            text = text.size() > start ? text.substr(start) : "";
            if (text.find(refused) != std::string::npos) return 0;
            logged = text.find(accepted) != std::string::npos;
        }
        // The move follows the acceptance; done once the file is at its new place.
        struct stat st;
        if (stat(path.c_str(), &st) != 0 && errno == ENOENT) return 1;
        if (OrvCtlClock::nowMs() >= deadline) return logged ? 1 : log.empty() ? 0 : -1;
        usleep(10000);
    }
}
