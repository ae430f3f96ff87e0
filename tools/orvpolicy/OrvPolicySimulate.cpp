#include "tools/orvpolicy/OrvPolicySimulate.h"

#include <json/json.h>
#include <stdio.h>

#include "tools/orvctl/OrvCtlTrace.h"

namespace {

const char* const kKindNames[] = {"write", "prop",    "ioctl", "program",
                                  "error", "warning", "note",  "set"};

std::string shown(const std::string& value) {
    return value.empty() ? "(unset)" : value;
}

std::string oneLine(const Json::Value& v) {
    Json::StreamWriterBuilder b;
    b["indentation"] = "";
    return Json::writeString(b, v);
}

std::string place(const std::string& app, const std::string& state) {
    return app.empty() ? state : state + " " + app;
}

}  // namespace

std::string OrvPolicySimulate::formatText(const OrvSimulator::Step& s, int number) {
    std::string out = "[" + std::to_string(number) + "] ";
    if (s.event == "timeout")
        out += "at " + std::to_string(s.atMs) + " ms the time-out fires";
    else if (s.event == "stop")
        out += "orvd stops (SIGINT or SIGTERM)";
    else
        out += s.event;
    if (s.fromApp != s.toApp || s.fromState != s.toState)
        out += "    " + place(s.fromApp, s.fromState) + " -> " + place(s.toApp, s.toState);
    out += "\n";
    for (const auto& e : s.effects) {
        switch (e.kind) {
            case OrvSimulator::Effect::WRITE:
            case OrvSimulator::Effect::PROP:
                out += std::string("    ") + (e.kind == OrvSimulator::Effect::PROP ? "prop " : "") +
                       e.target + ": " + shown(e.before) + " -> " + shown(e.after) + "\n";
                break;
            case OrvSimulator::Effect::IOCTL:
                out += "    ioctl " + e.target + " " + e.after + " (recorded, not performed)\n";
                break;
            case OrvSimulator::Effect::PROGRAM:
                out += "    program " + e.target + " " + e.after + " (recorded, not run)\n";
                break;
            case OrvSimulator::Effect::SET:
                out += "  runs " + e.after + "\n";
                break;
            default:
                out += std::string("    ") + kKindNames[e.kind] + ": " + e.after + "\n";
                break;
        }
    }
    if (!s.reply.empty()) out += "    => " + s.reply + "\n";
    return out;
}

std::string OrvPolicySimulate::formatJson(const OrvSimulator::Step& s, int number) {
    Json::Value v;
    v["step"] = number;
    v["event"] = s.event;
    v["at_ms"] = static_cast<Json::Int64>(s.atMs);
    v["from"]["app"] = s.fromApp;
    v["from"]["state"] = s.fromState;
    v["to"]["app"] = s.toApp;
    v["to"]["state"] = s.toState;
    v["sets"] = Json::arrayValue;
    for (const auto& set : s.sets) v["sets"].append(set);
    v["effects"] = Json::arrayValue;
    std::string set;
    for (const auto& e : s.effects) {
        if (e.kind == OrvSimulator::Effect::SET) {
            set = e.after;
            continue;
        }
        Json::Value j;
        j["kind"] = kKindNames[e.kind];
        if (!e.target.empty()) j["target"] = e.target;
        if (e.kind == OrvSimulator::Effect::WRITE || e.kind == OrvSimulator::Effect::PROP)
            j["before"] = e.before;
        j[e.kind >= OrvSimulator::Effect::ERROR ? "text" : "value"] = e.after;
        if (!set.empty()) j["set"] = set;
        v["effects"].append(j);
    }
    if (!s.reply.empty()) v["reply"] = s.reply;
    return oneLine(v) + "\n";
}

std::string OrvPolicySimulate::formatTable(const OrvVirtualDevice& device, bool json) {
    Json::Value table(Json::arrayValue);
    std::string out = "final values (of everything written):\n";
    auto add = [&](const std::map<std::string, OrvVirtualDevice::Entry>& entries, bool prop) {
        for (const auto& kv : entries) {
            if (!kv.second.written) continue;
            Json::Value j;
            j["kind"] = prop ? "prop" : "node";
            j["name"] = kv.first;
            j["initial"] = kv.second.initial;
            j["value"] = kv.second.value;
            table.append(j);
            out += std::string("    ") + (prop ? "prop " : "") + kv.first + " = " +
                   shown(kv.second.value) + "   (was " + shown(kv.second.initial) + ")\n";
        }
    };
    add(device.nodes(), false);
    add(device.properties(), true);
    if (!json) return out;
    Json::Value v;
    v["final"] = table;
    return oneLine(v) + "\n";
}

int OrvPolicySimulate::run(const std::vector<std::string>& args) {
    bool json = false, strict = false;
    std::vector<std::string> files;
    for (const auto& a : args) {
        if (a == "--json") {
            json = true;
        } else if (a == "--strict-paths") {
            strict = true;
        } else if (a.compare(0, 2, "--") == 0) {
            fprintf(stderr, "orvpolicy: simulate: unknown option %s (see orvpolicy --help)\n",
                    a.c_str());
            return 3;
        } else {
            files.push_back(a);
        }
    }
    if (files.size() != 2) {
        fprintf(stderr, "orvpolicy: usage: simulate POLICY TRACE [--json] [--strict-paths]\n");
        return 3;
    }
    std::vector<OrvCtlTrace::Step> trace;
    std::vector<std::string> errors;
    OrvCtlTrace::Result loaded = OrvCtlTrace::load(files[1], trace, errors);
    for (const auto& e : errors) fprintf(stderr, "orvpolicy: %s\n", e.c_str());
    if (loaded == OrvCtlTrace::UNREADABLE) return 2;
    if (loaded != OrvCtlTrace::OK) return 1;

    OrvSimulator sim(strict);
    OrvSimulator::Step first;
    std::string error;
    if (!sim.start(files[0], first, error)) {
        fprintf(stderr, "orvpolicy: simulate: orvd would not start with %s: %s\n", files[0].c_str(),
                error.c_str());
        return 1;
    }
    int number = 0;
    auto print = [&](const OrvSimulator::Step& s) {
        fputs((json ? formatJson(s, number) : formatText(s, number)).c_str(), stdout);
        ++number;
    };
    print(first);
    for (const auto& step : trace)
        for (const auto& s : sim.run(step.command, step.text)) print(s);
    OrvSimulator::Step stop;
    if (sim.stop(stop)) print(stop);
    fputs(formatTable(sim.device(), json).c_str(), stdout);
    return 0;
}
