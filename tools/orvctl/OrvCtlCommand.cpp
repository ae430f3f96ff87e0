#include "tools/orvctl/OrvCtlCommand.h"

#include <errno.h>
#include <stdlib.h>

#include <map>

#include "protocol/include/orv/protocol.h"

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

// Commands whose words map straight onto one frame: the arguments joined by ";" behind an
// optional fixed first field. Argument names ending in "PID" or "TID" must be numbers.
struct Direct {
    const char* name;
    int code;
    const std::string* lead;
    std::vector<const char*> args;
};

// The fixed first fields: a launch has no pid yet; a query names its key's kind.
const std::string kLaunchPid = std::to_string(orv::kPidLaunch);
const std::string kByName = std::to_string(static_cast<int>(orv::QueryBy::Name));
const std::string kByPid = std::to_string(static_cast<int>(orv::QueryBy::Pid));

const Direct kDirect[] = {
    {"dump", orv::DUMP_STATE, nullptr, {}},
    {"launch", orv::ACTIVITY_START, &kLaunchPid, {"APP"}},
    {"start", orv::ACTIVITY_START, nullptr, {"PID", "APP"}},
    {"displayed", orv::ACTIVITY_DISPLAYED, nullptr, {"PID", "APP"}},
    {"transit", orv::ACTIVITY_TRANSITION, nullptr, {"FROM_PID", "FROM_APP", "TO_PID", "TO_APP"}},
    {"proc-start", orv::PROCESS_START, nullptr, {"PID", "NAME"}},
    {"proc-die", orv::PROCESS_DIE, nullptr, {"PID", "NAME"}},
    {"gl-attach", orv::GLTHREAD_ATTACH, nullptr, {"PID", "TID"}},
    {"gl-detach", orv::GLTHREAD_DETTACH, nullptr, {"PID", "TID"}},
    {"wake", orv::WAKING_UP, nullptr, {}},
    {"timeout", orv::TIMEOUT, nullptr, {}},
    {"update", orv::CONFIGURATION_UPDATE, nullptr, {"PATH"}},
    {"event-mask", orv::CONFIGURATION_QUERY, &kByName, {"APP"}},
    {"event-mask --pid", orv::CONFIGURATION_QUERY, &kByPid, {"PID"}},
    {"large-heap", orv::DALVIK_LARGE_HEAP, nullptr, {"PID"}},
    {"heap-utilization", orv::DALVIK_HEAP_UTILIZATION, nullptr, {"PID"}},
    {"hw-accel", orv::HARDWARE_ACCELERATION, nullptr, {"PID"}},
    {"thermal-mask", orv::DISABLE_THERMAL, nullptr, {"APP"}},
};

// Sub-typed events: "list scroll 1234" becomes code 33 with payload "1234;1"; the rotation
// words pick a code of their own and carry no payload.
struct Sub {
    const char* word;
    int code;
    int type;  // -1: no payload
};

template <typename E>
Sub typed(const char* word, int code, E type) {
    return {word, code, static_cast<int>(type)};
}
Sub rotation(const char* word, orv::Rotate phase) {
    return {word, static_cast<int>(phase), -1};
}

const std::map<std::string, std::vector<Sub>>& families() {
    using orv::Gesture;
    using orv::ListView;
    using orv::Scale;
    static const std::map<std::string, std::vector<Sub>> table = {
        {"list",
         {typed("idle", orv::LIST_VIEW, ListView::Idle),
          typed("scroll", orv::LIST_VIEW, ListView::Scroll),
          typed("fling", orv::LIST_VIEW, ListView::Fling)}},
        {"gesture",
         {typed("down", orv::VIEW_GESTURE, Gesture::Down),
          typed("press", orv::VIEW_GESTURE, Gesture::Press),
          typed("tap", orv::VIEW_GESTURE, Gesture::Tap),
          typed("scroll", orv::VIEW_GESTURE, Gesture::Scroll),
          typed("fling", orv::VIEW_GESTURE, Gesture::Fling),
          typed("long-press", orv::VIEW_GESTURE, Gesture::LongPress)}},
        {"scale",
         {typed("start", orv::SCALE, Scale::Start), typed("continue", orv::SCALE, Scale::Continue),
          typed("end", orv::SCALE, Scale::End)}},
        {"rotate",
         {rotation("start", orv::Rotate::Start), rotation("anim-start", orv::Rotate::AnimationStart),
          rotation("anim-end", orv::Rotate::AnimationEnd)}},
    };
    return table;
}

bool fail(std::string& error, const std::string& text) {
    error = text;
    return false;
}

bool isNumberArg(const std::string& name) {
    return name.size() >= 3 && (name.compare(name.size() - 3, 3, "PID") == 0 ||
                                name.compare(name.size() - 3, 3, "TID") == 0);
}

void message(OrvCtlCommand& out, int code, const std::string& payload) {
    out.kind = OrvCtlCommand::MESSAGE;
    out.code = code;
    out.payload = payload;
    out.expectsReply = orv::expectsReply(code, payload);
}

// `args` are the words after the command's name.
bool parseDirect(const Direct& d, const std::vector<std::string>& args, OrvCtlCommand& out,
                 std::string& error) {
    std::string form = d.name;
    for (const char* a : d.args) form += std::string(" ") + a;
    if (args.size() != d.args.size()) return fail(error, "usage: " + form);
    std::string payload = d.lead ? *d.lead : "";
    for (size_t i = 0; i < args.size(); ++i) {
        int v = 0;
        if (isNumberArg(d.args[i]) && !toInt(args[i], v))
            return fail(error, std::string(d.args[i]) + " must be a decimal number, not \"" +
                                   args[i] + "\"");
        payload += (i == 0 && !d.lead ? "" : ";") + args[i];
    }
    message(out, d.code, payload);
    return true;
}

bool parseFamily(const std::string& name, const std::vector<Sub>& subs,
                 const std::vector<std::string>& w, OrvCtlCommand& out, std::string& error) {
    const bool withPid = subs.front().type >= 0;
    std::string words;
    for (const Sub& s : subs) words += (words.empty() ? "" : "|") + std::string(s.word);
    const std::string form = "usage: " + name + " " + words + (withPid ? " PID" : "");
    if (w.size() != (withPid ? 3u : 2u)) return fail(error, form);
    for (const Sub& s : subs) {
        if (w[1] != s.word) continue;
        int pid = 0;
        if (withPid && !toInt(w[2], pid))
            return fail(error, "PID must be a decimal number, not \"" + w[2] + "\"");
        message(out, s.code, withPid ? w[2] + ";" + std::to_string(s.type) : "");
        return true;
    }
    return fail(error, form);
}

}  // namespace

bool OrvCtlCommand::parse(const std::vector<std::string>& w, bool inTrace, OrvCtlCommand& out,
                          std::string& error) {
    out = OrvCtlCommand();
    if (w.empty()) return fail(error, "no command");
    const std::string& cmd = w[0];
    const std::vector<std::string> rest(w.begin() + 1, w.end());

    const bool byPid = cmd == "event-mask" && !rest.empty() && rest[0] == "--pid";
    for (const Direct& d : kDirect) {
        if (d.name != (byPid ? cmd + " --pid" : cmd)) continue;
        return parseDirect(d, byPid ? std::vector<std::string>(rest.begin() + 1, rest.end()) : rest,
                           out, error);
    }
    auto fam = families().find(cmd);
    if (fam != families().end()) return parseFamily(cmd, fam->second, w, out, error);

    if (cmd == "send") {
        int code = 0;
        if (rest.empty() || rest.size() > 2) return fail(error, "usage: send CODE [PAYLOAD]");
        if (!toInt(rest[0], code) || code < 1)
            return fail(error, "CODE must be a number of 1 or more, not \"" + rest[0] + "\"");
        message(out, code, rest.size() == 2 ? rest[1] : "");
        out.printCode = true;
        return true;
    }
    if (cmd == "sleep") {
        int ms = 0;
        if (rest.empty()) {
            message(out, orv::GOING_TO_SLEEP, "");
            return true;
        }
        if (!inTrace || rest.size() != 1)
            return fail(error, inTrace ? "usage: sleep [MS]" : "usage: sleep");
        if (!toInt(rest[0], ms) || ms < 0)
            return fail(error, "sleep MS: MS must be a number of 0 or more");
        out.kind = PAUSE;
        out.pauseMs = ms;
        return true;
    }
    if (cmd == "getprop" || cmd == "setprop") {
        const bool set = cmd == "setprop";
        if (rest.size() != (set ? 2u : 1u))
            return fail(error, set ? "usage: setprop NAME VALUE" : "usage: getprop NAME");
        out.kind = set ? SETPROP : GETPROP;
        out.arg1 = rest[0];
        if (set) out.arg2 = rest[1];
        return true;
    }
    if (cmd == "replay") {
        if (inTrace) return fail(error, "replay cannot be nested in a trace");
        if (rest.size() != 1) return fail(error, "usage: replay FILE");
        out.kind = REPLAY;
        out.arg1 = rest[0];
        return true;
    }
    return fail(error, "unknown command \"" + cmd + "\" (see orvctl --help)");
}

const char* OrvCtlCommand::usage() {
    return "usage: orvctl [--socket PATH] [--timeout MS] [--wait[=MS]] [--log FILE] COMMAND "
           "[ARGS]\n"
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
           "  update PATH                           a new policy file is ready at PATH: checked\n"
           "                                        first, confirmed after (--log helps)\n"
           "Queries (the answer is printed):\n"
           "  event-mask APP | event-mask --pid PID\n"
           "  large-heap PID | heap-utilization PID | hw-accel PID\n"
           "  thermal-mask APP\n"
           "Watching and checking:\n"
           "  monitor [--for MS]                    a line per event, state change, effect and\n"
           "                                        failure (host: --log FILE, orvd's stderr)\n"
           "  verify [POLICY]                       compare the device with what the policy wants\n"
           "                                        now (exit 1 when anything differs)\n"
           "  why [--json] TARGET [POLICY]          a node's or property's value, the method\n"
           "                                        that wrote it, what changes it next\n"
           "Other:\n"
           "  replay FILE                           run a trace: one command a line, '#' "
           "comments,\n"
           "                                        'sleep MS' pauses\n"
           "  getprop NAME | setprop NAME VALUE     system properties\n"
           "\n"
           "Options:\n"
           "  --socket PATH   connect to PATH instead of the reserved socket \"orvd\"\n"
           "  --timeout MS    how long to wait for a reply (default 2000)\n"
           "  --wait[=MS]     wait up to MS (default 5000) for orvd to accept connections\n"
           "  --log FILE      orvd's log (its standard error on a host), for update\n"
           "  --version       print the version\n"
           "  --help          this text\n"
           "\n"
           "Exit status: 0 ok, 1 usage or trace error, 2 orvd not reachable, 3 no reply in time,\n"
           "4 property refused, trace file unreadable or policy update refused.\n";
}
