#include "tools/orvctl/OrvCtlMonitor.h"

#include <cutils/properties.h>
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "tools/orvctl/OrvCtlClock.h"
#include "tools/orvctl/OrvCtlSession.h"

namespace {

const char kDebugSwitch[] = "sys.orv.debug.daemon";
volatile sig_atomic_t sStop = 0;

void onStop(int) {
    sStop = 1;
}

// "from[app, pid, gltid, state] to[app, pid, gltid, state]" as "app state -> app state".
std::string move(const std::string& text) {
    auto field = [&](const char* key) {
        size_t at = text.find(key);
        if (at == std::string::npos) return std::string("?");
        at += strlen(key);
        std::string inner = text.substr(at, text.find(']', at) - at);
        std::string app = inner.substr(0, inner.find(','));
        std::string state = inner.substr(inner.rfind(',') + 1);
        if (!state.empty() && state[0] == ' ') state.erase(0, 1);
        return app.empty() ? state : state + " " + app;
    };
    return field("from[") + " -> " + field("to[");
}

}  // namespace

std::string OrvCtlMonitor::describe(const std::string& line) {
    // "MM-DD HH:MM:SS.mmm  PID   TID L TAG     : TEXT"
    if (line.size() < 33 || line[2] != '-') return "";
    const std::string time = line.substr(6, 12);
    size_t sep = line.find(": ", 31);
    if (sep == std::string::npos) return "";
    const char level = line[31];
    const std::string tag = line.substr(33, line.find_last_not_of(' ', sep - 1) - 32);
    const std::string text = line.substr(sep + 2);
    if (level == 'E' || level == 'F') return time + " FAILED  " + text;
    if (level == 'W') return time + " warning " + text;
    if (tag == "OrvContext" && text.compare(0, 5, "  -> ") == 0)
        return time + " event   " + text.substr(5);
    if (tag == "OrvContext" && text.compare(0, 4, " -> ") == 0)
        return time + " event   " + text.substr(4);
    if (tag == "OrvContext" && text.compare(0, 4, "  ->") == 0)
        return time + " event   " + text.substr(4);
    if (tag != "OrvActionManager") return "";
    if (text.compare(0, 11, "APP-SWITCH ") == 0) return time + " switch  " + move(text);
    if (text.compare(0, 13, "STATE-CHANGE ") == 0) return time + " state   " + move(text);
    if (text.compare(0, 4, "exe ") == 0) {
        size_t start = text.find_first_not_of(' ', 4);
        return time + "   run   " + text.substr(start);
    }
    if (level == 'I' && (text == "DB updated" || text.find("new DB ") != std::string::npos))
        return time + " policy  " + text;
    return "";
}

int OrvCtlMonitor::run(const std::vector<std::string>& args) {
    int forMs = -1;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--for" && i + 1 < args.size()) {
            forMs = atoi(args[++i].c_str());
        } else {
            fprintf(stderr, "orvctl: usage: [--log FILE] monitor [--for MS]\n");
            return OrvCtlSession::EXIT_USAGE;
        }
    }
    // With --wait, orvd may still be starting: wait for it to answer, and for its log, which the
    // shell that starts it may create a moment later than the monitor looks.
    const long long waitEnd = OrvCtlClock::nowMs() + mSession.waitMs();
    if (mSession.waitMs() > 0) {
        OrvConnection conn;
        if (!mSession.connect(conn)) return OrvCtlSession::EXIT_UNREACHABLE;
    }
    FILE* in = nullptr;
    const bool fromFile = !mSession.logPath().empty();
    if (fromFile) {
        while (!(in = fopen(mSession.logPath().c_str(), "r")) && errno == ENOENT &&
               OrvCtlClock::nowMs() < waitEnd)
            usleep(10000);
        if (in) fseek(in, 0, SEEK_END);
    } else {
        in = popen("logcat -v threadtime -T 1 2>/dev/null", "r");
    }
    if (!in) {
        fprintf(stderr,
                "orvctl: monitor: cannot read %s (%s); on a host give orvd's standard "
                "error with --log FILE\n",
                fromFile ? mSession.logPath().c_str() : "logcat", strerror(errno));
        return OrvCtlSession::EXIT_REFUSED;
    }
    char old[PROPERTY_VALUE_MAX + 1] = {};
    property_get(kDebugSwitch, old, "");
    if (property_set(kDebugSwitch, "1") != 0)
        fprintf(stderr, "orvctl: monitor: cannot turn on %s; only failures will show\n",
                kDebugSwitch);
    struct sigaction sa = {};
    sa.sa_handler = onStop;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    printf("monitoring orvd (%s); stop with Ctrl-C\n",
           fromFile ? mSession.logPath().c_str() : "logcat");
    fflush(stdout);

    const long long end = forMs >= 0 ? OrvCtlClock::nowMs() + forMs : -1;
    std::string pending;
    char buf[4096];
    while (!sStop && (end < 0 || OrvCtlClock::nowMs() < end)) {
        size_t n = fread(buf, 1, sizeof(buf), in);
        if (n == 0) {
            clearerr(in);
            if (!fromFile && feof(in)) break;
            usleep(20000);
            continue;
        }
        pending.append(buf, n);
        for (size_t nl; (nl = pending.find('\n')) != std::string::npos;) {
            std::string out = describe(pending.substr(0, nl));
            pending.erase(0, nl + 1);
            if (!out.empty()) printf("%s\n", out.c_str());
        }
        fflush(stdout);
    }
    // Back to what it was, "unset" included: orvd reads an empty switch as off.
    property_set(kDebugSwitch, old[0] ? old : "0");
    if (fromFile)
        fclose(in);
    else
        pclose(in);
    return OrvCtlSession::EXIT_OK;
}
