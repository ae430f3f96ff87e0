#include "tools/orvctl/OrvCtlApp.h"

#include <cutils/properties.h>
#include <stdlib.h>

#include "core/OrvVersion.h"
#include "tools/orvctl/OrvCtlClock.h"
#include "tools/orvctl/OrvCtlMonitor.h"
#include "tools/orvctl/OrvCtlTrace.h"
#include "tools/orvctl/OrvCtlUpdate.h"
#include "tools/orvctl/OrvCtlVerify.h"
#include "tools/orvctl/OrvCtlWhy.h"

namespace {

// Milliseconds from 0 to an hour; false when `text` is anything else.
bool toMs(const std::string& text, int& out) {
    char* end = nullptr;
    long ms = strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || ms < 0 || ms > 3600000) return false;
    out = static_cast<int>(ms);
    return true;
}

const int kDefaultWaitMs = 5000;

}  // namespace

int OrvCtlApp::run(int argc, char** argv) {
    OrvCtlSession::Options options;
    int i = 1;
    for (; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--help" || a == "-h" || a == "help") {
            fputs(OrvCtlCommand::usage(), stdout);
            return OrvCtlSession::EXIT_OK;
        } else if (a == "--version") {
            printf("orvctl %s\n", ORV_VERSION);
            return OrvCtlSession::EXIT_OK;
        } else if (a == "--wait") {
            options.waitMs = kDefaultWaitMs;
        } else if (a.compare(0, 7, "--wait=") == 0) {
            if (!toMs(a.substr(7), options.waitMs)) {
                fprintf(stderr, "orvctl: --wait takes milliseconds, not \"%s\"\n", a.c_str() + 7);
                return OrvCtlSession::EXIT_USAGE;
            }
        } else if (a == "--socket" || a == "--timeout" || a == "--log") {
            if (i + 1 >= argc) {
                fprintf(stderr, "orvctl: %s needs a value\n", a.c_str());
                return OrvCtlSession::EXIT_USAGE;
            }
            std::string v = argv[++i];
            if (a == "--socket") {
                options.socket = v;
            } else if (a == "--log") {
                options.logPath = v;
            } else if (!toMs(v, options.timeoutMs)) {
                fprintf(stderr, "orvctl: --timeout takes milliseconds, not \"%s\"\n", v.c_str());
                return OrvCtlSession::EXIT_USAGE;
            }
        } else if (a.compare(0, 2, "--") == 0) {
            fprintf(stderr, "orvctl: unknown option %s (see orvctl --help)\n", a.c_str());
            return OrvCtlSession::EXIT_USAGE;
        } else {
            break;
        }
    }
    if (i >= argc) {
        fputs(OrvCtlCommand::usage(), stderr);
        return OrvCtlSession::EXIT_USAGE;
    }
    mSession = OrvCtlSession(options);
    const std::string name = argv[i];
    const std::vector<std::string> rest(argv + i + 1, argv + argc);
    if (name == "update") return OrvCtlUpdate(mSession).run(rest);
    if (name == "verify") return OrvCtlVerify(mSession).run(rest);
    if (name == "why") return OrvCtlWhy(mSession).run(rest);
    if (name == "monitor") return OrvCtlMonitor(mSession).run(rest);
    std::vector<std::string> words(argv + i, argv + argc);
    OrvCtlCommand cmd;
    std::string error;
    if (!OrvCtlCommand::parse(words, false, cmd, error)) {
        fprintf(stderr, "orvctl: %s\n", error.c_str());
        return OrvCtlSession::EXIT_USAGE;
    }
    return runCommand(cmd, words[0]);
}

int OrvCtlApp::runCommand(const OrvCtlCommand& cmd, const std::string& label) {
    switch (cmd.kind) {
        case OrvCtlCommand::GETPROP: {
            char value[PROPERTY_VALUE_MAX + 1] = {0};
            property_get(cmd.arg1.c_str(), value, "");
            printf("%s\n", value);
            return OrvCtlSession::EXIT_OK;
        }
        case OrvCtlCommand::SETPROP:
            if (property_set(cmd.arg1.c_str(), cmd.arg2.c_str()) == 0)
                return OrvCtlSession::EXIT_OK;
            fprintf(stderr, "orvctl: property %s was refused the value \"%s\"\n", cmd.arg1.c_str(),
                    cmd.arg2.c_str());
            return OrvCtlSession::EXIT_REFUSED;
        case OrvCtlCommand::PAUSE:
            OrvCtlClock::pauseMs(cmd.pauseMs);
            return OrvCtlSession::EXIT_OK;
        case OrvCtlCommand::REPLAY:
            return runReplay(cmd.arg1);
        case OrvCtlCommand::MESSAGE:
            break;
    }
    if (mShared) return runMessage(*mShared, cmd, label);
    OrvConnection conn;
    if (!mSession.connect(conn)) return OrvCtlSession::EXIT_UNREACHABLE;
    return runMessage(conn, cmd, label);
}

int OrvCtlApp::runMessage(OrvConnection& conn, const OrvCtlCommand& cmd, const std::string& label) {
    std::string error;
    if (!conn.send(orv::frame(cmd.code, cmd.payload), error)) {
        fprintf(stderr, "orvctl: %s\n", error.c_str());
        return OrvCtlSession::EXIT_UNREACHABLE;
    }
    if (!cmd.expectsReply) return OrvCtlSession::EXIT_OK;
    int code = 0;
    std::string text;
    int status = mSession.readReply(conn, cmd.code, label, code, text);
    if (status != OrvCtlSession::EXIT_OK) return status;
    if (cmd.printCode)
        printf("%d %s\n", code, text.c_str());
    else if (!text.empty() && text.back() == '\n')
        fputs(text.c_str(), stdout);
    else
        printf("%s\n", text.c_str());
    fflush(stdout);
    return OrvCtlSession::EXIT_OK;
}

int OrvCtlApp::runReplay(const std::string& path) {
    std::vector<OrvCtlTrace::Step> steps;
    std::vector<std::string> errors;
    OrvCtlTrace::Result r = OrvCtlTrace::load(path, steps, errors);
    for (const auto& e : errors) fprintf(stderr, "orvctl: %s\n", e.c_str());
    if (r == OrvCtlTrace::UNREADABLE) return OrvCtlSession::EXIT_REFUSED;
    if (r == OrvCtlTrace::BAD_LINES) return OrvCtlSession::EXIT_USAGE;

    OrvConnection conn;
    if (!mSession.connect(conn)) return OrvCtlSession::EXIT_UNREACHABLE;
    mShared = &conn;
    int status = OrvCtlSession::EXIT_OK;
    for (const auto& step : steps) {
        if (step.command.expectsReply) printf("%s => ", step.text.c_str());
        fflush(stdout);
        std::string label = path + ":" + std::to_string(step.line);
        int s = runCommand(step.command, label);
        if (s != OrvCtlSession::EXIT_OK && step.command.expectsReply) printf("(no reply)\n");
        if (s != OrvCtlSession::EXIT_OK &&
            (status == OrvCtlSession::EXIT_OK || s == OrvCtlSession::EXIT_UNREACHABLE))
            status = s;
        // Every later line would meet the same broken connection.
        if (s == OrvCtlSession::EXIT_UNREACHABLE) break;
    }
    mShared = nullptr;
    return status;
}
