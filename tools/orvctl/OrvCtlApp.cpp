#include "tools/orvctl/OrvCtlApp.h"

#include <cutils/properties.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "core/OrvVersion.h"
#include "tools/orvctl/OrvCtlMonitor.h"
#include "tools/orvctl/OrvCtlTrace.h"
#include "tools/orvctl/OrvCtlUpdate.h"
#include "tools/orvctl/OrvCtlVerify.h"
#include "tools/orvctl/OrvCtlWhy.h"

namespace {

void pauseMs(int ms) {
    struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

long long nowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

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
    int i = 1;
    for (; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--help" || a == "-h" || a == "help") {
            fputs(OrvCtlCommand::usage(), stdout);
            return EXIT_OK;
        } else if (a == "--version") {
            printf("orvctl %s\n", ORV_VERSION);
            return EXIT_OK;
        } else if (a == "--wait") {
            mWaitMs = kDefaultWaitMs;
        } else if (a.compare(0, 7, "--wait=") == 0) {
            if (!toMs(a.substr(7), mWaitMs)) {
                fprintf(stderr, "orvctl: --wait takes milliseconds, not \"%s\"\n", a.c_str() + 7);
                return EXIT_USAGE;
            }
        } else if (a == "--socket" || a == "--timeout" || a == "--log") {
            if (i + 1 >= argc) {
                fprintf(stderr, "orvctl: %s needs a value\n", a.c_str());
                return EXIT_USAGE;
            }
            std::string v = argv[++i];
            if (a == "--socket") {
                mSocket = v;
            } else if (a == "--log") {
                mLogPath = v;
            } else if (!toMs(v, mTimeoutMs)) {
                fprintf(stderr, "orvctl: --timeout takes milliseconds, not \"%s\"\n", v.c_str());
                return EXIT_USAGE;
            }
        } else if (a.compare(0, 2, "--") == 0) {
            fprintf(stderr, "orvctl: unknown option %s (see orvctl --help)\n", a.c_str());
            return EXIT_USAGE;
        } else {
            break;
        }
    }
    if (i >= argc) {
        fputs(OrvCtlCommand::usage(), stderr);
        return EXIT_USAGE;
    }
    const std::string name = argv[i];
    const std::vector<std::string> rest(argv + i + 1, argv + argc);
    if (name == "update") return OrvCtlUpdate(*this).run(rest);
    if (name == "verify") return OrvCtlVerify(*this).run(rest);
    if (name == "why") return OrvCtlWhy(*this).run(rest);
    if (name == "monitor") return OrvCtlMonitor(*this).run(rest);
    std::vector<std::string> words(argv + i, argv + argc);
    OrvCtlCommand cmd;
    std::string error;
    if (!OrvCtlCommand::parse(words, false, cmd, error)) {
        fprintf(stderr, "orvctl: %s\n", error.c_str());
        return EXIT_USAGE;
    }
    return runCommand(cmd, words[0]);
}

bool OrvCtlApp::connect(OrvConnection& conn) {
    std::string error;
    const long long deadline = nowMs() + mWaitMs;
    // Only the first connection waits: once orvd answered, a later failure is news.
    while (!conn.open(mSocket, error)) {
        if (nowMs() >= deadline) {
            if (mWaitMs > 0)
                fprintf(stderr, "orvctl: waited %d ms: %s\n", mWaitMs, error.c_str());
            else
                fprintf(stderr, "orvctl: %s\n", error.c_str());
            return false;
        }
        pauseMs(10);
    }
    mWaitMs = 0;
    return true;
}

int OrvCtlApp::query(int code, const std::string& payload, std::string& answer) {
    OrvConnection conn;
    if (!connect(conn)) return EXIT_UNREACHABLE;
    OrvCtlCommand cmd;
    cmd.code = code;
    cmd.payload = payload;
    cmd.expectsReply = true;
    std::string error;
    if (!conn.send(orv::frame(code, payload), error)) {
        fprintf(stderr, "orvctl: %s\n", error.c_str());
        return EXIT_UNREACHABLE;
    }
    int replyCode = 0;
    return readReply(conn, cmd, std::to_string(code), replyCode, answer);
}

int OrvCtlApp::runCommand(const OrvCtlCommand& cmd, const std::string& label) {
    switch (cmd.kind) {
        case OrvCtlCommand::GETPROP: {
            char value[PROPERTY_VALUE_MAX + 1] = {0};
            property_get(cmd.arg1.c_str(), value, "");
            printf("%s\n", value);
            return EXIT_OK;
        }
        case OrvCtlCommand::SETPROP:
            if (property_set(cmd.arg1.c_str(), cmd.arg2.c_str()) == 0) return EXIT_OK;
            fprintf(stderr, "orvctl: property %s was refused the value \"%s\"\n", cmd.arg1.c_str(),
                    cmd.arg2.c_str());
            return EXIT_REFUSED;
        case OrvCtlCommand::PAUSE:
            pauseMs(cmd.pauseMs);
            return EXIT_OK;
        case OrvCtlCommand::REPLAY:
            return runReplay(cmd.arg1);
        case OrvCtlCommand::MESSAGE:
            break;
    }
    if (mShared) return runMessage(*mShared, cmd, label);
    OrvConnection conn;
    if (!connect(conn)) return EXIT_UNREACHABLE;
    return runMessage(conn, cmd, label);
}

int OrvCtlApp::runMessage(OrvConnection& conn, const OrvCtlCommand& cmd, const std::string& label) {
    std::string error;
    if (!conn.send(orv::frame(cmd.code, cmd.payload), error)) {
        fprintf(stderr, "orvctl: %s\n", error.c_str());
        return EXIT_UNREACHABLE;
    }
    if (!cmd.expectsReply) return EXIT_OK;
    int code = 0;
    std::string text;
    int status = readReply(conn, cmd, label, code, text);
    if (status != EXIT_OK) return status;
    if (cmd.printCode)
        printf("%d %s\n", code, text.c_str());
    else if (!text.empty() && text.back() == '\n')
        fputs(text.c_str(), stdout);
    else
        printf("%s\n", text.c_str());
    fflush(stdout);
    return EXIT_OK;
}

int OrvCtlApp::readReply(OrvConnection& conn, const OrvCtlCommand& cmd, const std::string& label,
                         int& code, std::string& text) {
    orv::Reply reply;
    switch (conn.readReply(mTimeoutMs, reply)) {
        case OrvConnection::OK:
            code = reply.code;
            text = std::move(reply.text);
            break;
        case OrvConnection::TIMED_OUT:
            fprintf(stderr, "orvctl: %s: no reply from orvd within %d ms\n", label.c_str(),
                    mTimeoutMs);
            return EXIT_NO_REPLY;
        case OrvConnection::CLOSED:
        case OrvConnection::FAILED:
            fprintf(stderr, "orvctl: %s: the connection to orvd broke before a reply\n",
                    label.c_str());
            return EXIT_UNREACHABLE;
    }
    if (code != cmd.code)
        fprintf(stderr, "orvctl: %s: the reply carries code %d, not %d\n", label.c_str(), code,
                cmd.code);
    return EXIT_OK;
}

int OrvCtlApp::runReplay(const std::string& path) {
    std::vector<OrvCtlTrace::Step> steps;
    std::vector<std::string> errors;
    OrvCtlTrace::Result r = OrvCtlTrace::load(path, steps, errors);
    for (const auto& e : errors) fprintf(stderr, "orvctl: %s\n", e.c_str());
    if (r == OrvCtlTrace::UNREADABLE) return EXIT_REFUSED;
    if (r == OrvCtlTrace::BAD_LINES) return EXIT_USAGE;

    OrvConnection conn;
    if (!connect(conn)) return EXIT_UNREACHABLE;
    mShared = &conn;
    int status = EXIT_OK;
    for (const auto& step : steps) {
        if (step.command.expectsReply) printf("%s => ", step.text.c_str());
        fflush(stdout);
        std::string label = path + ":" + std::to_string(step.line);
        int s = runCommand(step.command, label);
        if (s != EXIT_OK && step.command.expectsReply) printf("(no reply)\n");
        if (s != EXIT_OK && (status == EXIT_OK || s == EXIT_UNREACHABLE)) status = s;
        // Every later line would meet the same broken connection.
        if (s == EXIT_UNREACHABLE) break;
    }
    mShared = nullptr;
    return status;
}
