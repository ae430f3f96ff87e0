#include "tools/orvctl/OrvCtlVerify.h"

#include <cutils/properties.h>
#include <stdlib.h>
#include <unistd.h>

#include <map>

#include "core/OrvDevicePath.h"
#include "scenario/OrvState.h"
#include "tools/orvctl/OrvCtlSession.h"
#include "tools/sim/OrvSimulator.h"

// "   Name      : value" of the dump's context section.
std::string OrvCtlVerify::dumpField(const std::string& dump, const std::string& name) {
    size_t at = dump.find("   " + name);
    if (at == std::string::npos) return "";
    at = dump.find(": ", at);
    if (at == std::string::npos) return "";
    at += 2;
    return dump.substr(at, dump.find('\n', at) - at);
}

std::string OrvCtlVerify::liveNode(const std::string& path) {
    std::string value;
    FILE* f = fopen(path.c_str(), "r");
    if (!f) return "(cannot read)";
    char buf[4096];
    size_t n = fread(buf, 1, sizeof(buf), f);
    fclose(f);
    value.assign(buf, n);
    if (!value.empty() && value.back() == '\n') value.pop_back();
    return value;
}

std::string OrvCtlVerify::liveProperty(const std::string& name) {
    char value[PROPERTY_VALUE_MAX + 1] = {};
    property_get(name.c_str(), value, "");
    return value;
}

std::vector<std::vector<std::string>> OrvCtlVerify::pathTo(const std::string& app,
                                                           const std::string& state, int pid,
                                                           int glTid) {
    std::vector<std::vector<std::string>> steps;
    if (app.empty()) return steps;
    const std::string p = std::to_string(pid);
    if (state == orv::state::kLaunch) return {{"launch", app}};
    steps.push_back({"proc-start", p, app});
    if (glTid >= 0) steps.push_back({"gl-attach", p, std::to_string(glTid)});
    steps.push_back({"start", p, app});
    if (state == orv::state::kStart) return steps;
    steps.push_back({"displayed", p, app});
    namespace st = orv::state;
    static const std::map<std::string, std::vector<std::string>> kEntry = {
        {st::kListViewScroll, {"list", "scroll"}},
        {st::kListViewFling, {"list", "fling"}},
        {st::kScale, {"scale", "start"}},
        {st::kRotate, {"rotate", "start"}},
        {st::kGestureDown, {"gesture", "down"}},
        {st::kGesturePress, {"gesture", "press"}},
        {st::kGestureTap, {"gesture", "tap"}},
        {st::kGestureScroll, {"gesture", "scroll"}},
        {st::kGestureFling, {"gesture", "fling"}},
        {st::kGestureLongPress, {"gesture", "long-press"}},
    };
    auto it = kEntry.find(state);
    if (it != kEntry.end()) {
        std::vector<std::string> words = it->second;
        if (state != orv::state::kRotate) words.push_back(p);
        steps.push_back(words);
    }
    return steps;
}

std::string OrvCtlVerify::policyInForce() {
    // Where orvd itself looks, in its order.
    std::string policy = OrvDevicePath("/data/orvpolicy");
    if (access(policy.c_str(), R_OK) != 0) policy = OrvDevicePath("/system/etc/orvpolicy");
    return policy;
}

bool OrvCtlVerify::reach(OrvSimulator& sim, const std::string& policy, const std::string& dump,
                         std::vector<OrvSimulator::Step>& steps, std::string& error) {
    steps.assign(1, OrvSimulator::Step());
    if (!sim.start(policy, steps[0], error)) return false;
    const int pid = atoi(dumpField(dump, "PID").c_str());
    const int glTid = atoi(dumpField(dump, "GLTID").c_str());
    for (const auto& words : pathTo(dumpField(dump, "App"), dumpField(dump, "State"), pid, glTid)) {
        OrvCtlCommand cmd;
        if (!OrvCtlCommand::parse(words, true, cmd, error)) continue;
        for (auto& step : sim.run(cmd, words[0])) steps.push_back(step);
    }
    error.clear();
    return true;
}

int OrvCtlVerify::run(const std::vector<std::string>& args) {
    if (args.size() > 1) {
        fprintf(stderr, "orvctl: usage: verify [POLICY]\n");
        return OrvCtlSession::EXIT_USAGE;
    }
    const std::string policy = args.empty() ? policyInForce() : args[0];
    std::string dump;
    int status = mSession.query(orv::DUMP_STATE, "", dump);
    if (status != OrvCtlSession::EXIT_OK) return status;
    const std::string app = dumpField(dump, "App"), state = dumpField(dump, "State");

    // Nodes this device lacks fail in the simulation as they did in orvd: not compared.
    OrvSimulator sim(true);
    std::vector<OrvSimulator::Step> steps;
    std::string error;
    if (!reach(sim, policy, dump, steps, error)) {
        fprintf(stderr, "orvctl: verify: %s: %s\n", policy.c_str(), error.c_str());
        return OrvCtlSession::EXIT_REFUSED;
    }
    const std::string where = app.empty() ? orv::state::kReset : app + " in " + state;
    if (sim.context().mAppName != app || state != sim.context().mState->getStateNameStr())
        fprintf(stderr, "orvctl: verify: the policy does not lead to %s; compared with %s %s\n",
                where.c_str(), sim.context().mAppName.c_str(),
                sim.context().mState->getStateNameStr());

    int compared = 0, differ = 0;
    auto compare = [&](const std::map<std::string, OrvVirtualDevice::Entry>& entries, bool prop) {
        for (const auto& kv : entries) {
            if (!kv.second.written) continue;
            ++compared;
            const std::string live = prop ? liveProperty(kv.first) : liveNode(kv.first);
            if (live == kv.second.value) continue;
            ++differ;
            printf("%s%s: the policy wants \"%s\", the device has \"%s\"\n", prop ? "prop " : "",
                   kv.first.c_str(), kv.second.value.c_str(), live.c_str());
        }
    };
    compare(sim.device().nodes(), false);
    compare(sim.device().properties(), true);
    if (differ == 0) {
        printf("%d values as the policy wants them for %s\n", compared, where.c_str());
        return OrvCtlSession::EXIT_OK;
    }
    printf("%d of %d values differ from the policy for %s\n", differ, compared, where.c_str());
    return 1;
}
