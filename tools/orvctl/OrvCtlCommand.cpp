#include "tools/orvctl/OrvCtlCommand.h"

#include <errno.h>
#include <stdlib.h>

#include <map>

namespace {

// A decimal 32-bit integer, sign allowed; anything else is refused rather than sent as 0.
bool toInt(const std::string& text, int& out) {
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    long v = strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < INT32_MIN || v > INT32_MAX) return false;
    out = static_cast<int>(v);
    return true;
}

struct Sub {
    const char* word;
    int type;
};

struct Family {
    int code;
    std::vector<Sub> subs;
};

// The sub-typed events: "list scroll 1234" becomes code 33 with payload "1234;1".
const std::map<std::string, Family>& families() {
    static const std::map<std::string, Family> table = {
        {"list", {33, {{"idle", 0}, {"scroll", 1}, {"fling", 2}}}},
        {"gesture",
         {34,
          {{"down", 0}, {"press", 1}, {"tap", 2}, {"scroll", 3}, {"fling", 4}, {"long-press", 5}}}},
        {"scale", {35, {{"start", 0}, {"continue", 1}, {"end", 2}}}},
    };
    return table;
}

bool fail(std::string& error, const std::string& text) {
    error = text;
    return false;
}

bool needArgs(const std::vector<std::string>& w, size_t n, const char* form, std::string& error) {
    if (w.size() - 1 == n) return true;
    return fail(error, std::string("usage: ") + form);
}

bool needPid(const std::string& text, const char* what, std::string& error) {
    int v = 0;
    if (toInt(text, v)) return true;
    return fail(error, std::string(what) + " must be a decimal number, not \"" + text + "\"");
}

void message(OrvCtlCommand& out, int code, const std::string& payload) {
    out.kind = OrvCtlCommand::MESSAGE;
    out.code = code;
    out.payload = payload;
    out.expectsReply = OrvCtlCommand::codeHasReply(code);
}

}  // namespace

bool OrvCtlCommand::codeHasReply(int code) {
    switch (code) {
        case 1:
        case 2:
        case 3:
        case 4:
        case 5:
        case 21:
        case 22:
        case 23:
        case 33:
        case 34:
        case 35:
        case 41:
        case 42:
        case 301:
        case 302:
        case 303:
        case 500:
            return false;
        default:
            return true;
    }
}

std::string OrvCtlCommand::frame(int code, const std::string& payload) {
    return "[" + std::to_string(code) + "," + std::to_string(payload.size()) + "]" + payload;
}

bool OrvCtlCommand::parse(const std::vector<std::string>& w, bool inTrace, OrvCtlCommand& out,
                          std::string& error) {
    out = OrvCtlCommand();
    if (w.empty()) return fail(error, "no command");
    const std::string& cmd = w[0];

    if (cmd == "dump") {
        if (!needArgs(w, 0, "dump", error)) return false;
        message(out, 900, "");
        return true;
    }
    if (cmd == "send") {
        if (w.size() < 2 || w.size() > 3) return fail(error, "usage: send CODE [PAYLOAD]");
        int code = 0;
        if (!toInt(w[1], code) || code < 1)
            return fail(error, "CODE must be a number of 1 or more, not \"" + w[1] + "\"");
        message(out, code, w.size() == 3 ? w[2] : "");
        out.printCode = true;
        return true;
    }
    if (cmd == "launch") {
        if (!needArgs(w, 1, "launch APP", error)) return false;
        message(out, 3, "-1;" + w[1]);
        return true;
    }
    if (cmd == "start" || cmd == "displayed" || cmd == "proc-start" || cmd == "proc-die") {
        static const std::map<std::string, int> codes = {
            {"start", 3}, {"displayed", 4}, {"proc-start", 1}, {"proc-die", 2}};
        std::string form = cmd + (cmd.compare(0, 5, "proc-") == 0 ? " PID NAME" : " PID APP");
        if (!needArgs(w, 2, form.c_str(), error) || !needPid(w[1], "PID", error)) return false;
        message(out, codes.at(cmd), w[1] + ";" + w[2]);
        return true;
    }
    if (cmd == "transit") {
        if (!needArgs(w, 4, "transit FROM_PID FROM_APP TO_PID TO_APP", error) ||
            !needPid(w[1], "FROM_PID", error) || !needPid(w[3], "TO_PID", error))
            return false;
        message(out, 5, w[1] + ";" + w[2] + ";" + w[3] + ";" + w[4]);
        return true;
    }
    if (cmd == "gl-attach" || cmd == "gl-detach") {
        std::string form = cmd + " PID TID";
        if (!needArgs(w, 2, form.c_str(), error) || !needPid(w[1], "PID", error) ||
            !needPid(w[2], "TID", error))
            return false;
        message(out, cmd == "gl-attach" ? 41 : 42, w[1] + ";" + w[2]);
        return true;
    }
    auto fam = families().find(cmd);
    if (fam != families().end()) {
        std::string words;
        for (const Sub& s : fam->second.subs)
            words += (words.empty() ? "" : "|") + std::string(s.word);
        std::string form = cmd + " " + words + " PID";
        if (!needArgs(w, 2, form.c_str(), error)) return false;
        for (const Sub& s : fam->second.subs) {
            if (w[1] != s.word) continue;
            if (!needPid(w[2], "PID", error)) return false;
            message(out, fam->second.code, w[2] + ";" + std::to_string(s.type));
            return true;
        }
        return fail(error, "usage: " + form);
    }
    if (cmd == "rotate") {
        static const std::map<std::string, int> codes = {
            {"start", 21}, {"anim-start", 22}, {"anim-end", 23}};
        if (!needArgs(w, 1, "rotate start|anim-start|anim-end", error)) return false;
        auto it = codes.find(w[1]);
        if (it == codes.end()) return fail(error, "usage: rotate start|anim-start|anim-end");
        message(out, it->second, "");
        return true;
    }
    if (cmd == "sleep") {
        if (w.size() == 2 && inTrace) {
            int ms = 0;
            if (!toInt(w[1], ms) || ms < 0)
                return fail(error, "sleep MS: MS must be a number of 0 or more");
            out.kind = PAUSE;
            out.pauseMs = ms;
            return true;
        }
        if (!needArgs(w, 0, inTrace ? "sleep [MS]" : "sleep", error)) return false;
        message(out, 302, "");
        return true;
    }
    if (cmd == "wake" || cmd == "timeout") {
        if (!needArgs(w, 0, cmd.c_str(), error)) return false;
        message(out, cmd == "wake" ? 303 : 500, "");
        return true;
    }
    if (cmd == "update") {
        if (!needArgs(w, 1, "update PATH", error)) return false;
        message(out, 301, w[1]);
        return true;
    }
    if (cmd == "event-mask") {
        if (w.size() == 3 && w[1] == "--pid") {
            if (!needPid(w[2], "PID", error)) return false;
            message(out, 400, "1;" + w[2]);
            return true;
        }
        if (!needArgs(w, 1, "event-mask APP | event-mask --pid PID", error)) return false;
        message(out, 400, "0;" + w[1]);
        return true;
    }
    if (cmd == "large-heap" || cmd == "heap-utilization" || cmd == "hw-accel") {
        static const std::map<std::string, int> codes = {
            {"large-heap", 101}, {"heap-utilization", 102}, {"hw-accel", 103}};
        std::string form = cmd + " PID";
        if (!needArgs(w, 1, form.c_str(), error) || !needPid(w[1], "PID", error)) return false;
        message(out, codes.at(cmd), w[1]);
        return true;
    }
    if (cmd == "thermal-mask") {
        if (!needArgs(w, 1, "thermal-mask APP", error)) return false;
        message(out, 104, w[1]);
        return true;
    }
    if (cmd == "getprop") {
        if (!needArgs(w, 1, "getprop NAME", error)) return false;
        out.kind = GETPROP;
        out.arg1 = w[1];
        return true;
    }
    if (cmd == "setprop") {
        if (!needArgs(w, 2, "setprop NAME VALUE", error)) return false;
        out.kind = SETPROP;
        out.arg1 = w[1];
        out.arg2 = w[2];
        return true;
    }
    if (cmd == "replay") {
        if (inTrace) return fail(error, "replay cannot be nested in a trace");
        if (!needArgs(w, 1, "replay FILE", error)) return false;
        out.kind = REPLAY;
        out.arg1 = w[1];
        return true;
    }
    return fail(error, "unknown command \"" + cmd + "\" (see orvctl --help)");
}

const char* OrvCtlCommand::usage() {
    return "usage: orvctl [--socket PATH] [--timeout MS] COMMAND [ARGS]\n"
           "\n"
           "Daemon state:\n"
           "  dump                                  print orvd's state dump\n"
           "  send CODE [PAYLOAD]                   send one raw message, print its reply\n"
           "Events:\n"
           "  launch APP                            an activity is being launched\n"
           "  start PID APP                         an activity started in process PID\n"
           "  displayed PID APP                     an activity is displayed\n"
           "  transit FROM_PID FROM_APP TO_PID TO_APP   foreground hands over\n"
           "  proc-start PID NAME | proc-die PID NAME   a process starts or dies\n"
           "  gl-attach PID TID | gl-detach PID TID     a GL thread attaches or detaches\n"
           "  list idle|scroll|fling PID\n"
           "  gesture down|press|tap|scroll|fling|long-press PID\n"
           "  scale start|continue|end PID\n"
           "  rotate start|anim-start|anim-end\n"
           "  sleep | wake                          screen goes off or on\n"
           "  timeout                               a gesture time-out, as the daemon's timer "
           "sends\n"
           "  update PATH                           a new policy file is ready at PATH\n"
           "Queries (the answer is printed):\n"
           "  event-mask APP | event-mask --pid PID\n"
           "  large-heap PID | heap-utilization PID | hw-accel PID\n"
           "  thermal-mask APP\n"
           "Other:\n"
           "  replay FILE                           run a trace: one command a line, '#' "
           "comments,\n"
           "                                        'sleep MS' pauses\n"
           "  getprop NAME | setprop NAME VALUE     system properties\n"
           "\n"
           "Options:\n"
           "  --socket PATH   connect to PATH instead of the reserved socket \"orvd\"\n"
           "  --timeout MS    how long to wait for a reply (default 2000)\n"
           "  --help          this text\n"
           "\n"
           "Exit status: 0 ok, 1 usage or trace error, 2 orvd not reachable, 3 no reply in time,\n"
           "4 property refused or trace file unreadable.\n";
}
