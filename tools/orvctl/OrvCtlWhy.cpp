#include "tools/orvctl/OrvCtlWhy.h"

#include <stdio.h>
#include <stdlib.h>

#include "protocol/include/orv/protocol.h"
#include "scenario/OrvState.h"
#include "tools/codec/OrvPolicyDocument.h"
#include "tools/orvctl/OrvCtlSession.h"
#include "tools/orvctl/OrvCtlVerify.h"
#include "tools/orvpolicy/OrvPolicyKeyScan.h"
#include "tools/orvpolicy/OrvPolicyReport.h"

namespace {

const char* const kInferred =
    "inferred: the simulator replayed the shortest way from start-up to the application and "
    "state orvd's dump names; a set that ran on another way there is not seen";

std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

}  // namespace

std::string OrvCtlWhy::documentPath(const std::string& method, const Json::Value& root) {
    std::string m = method;
    const std::string mark = "(reference ";
    size_t ref = m.find(mark);
    if (ref != std::string::npos) {
        size_t close = m.find(')', ref);
        std::string owner = m.substr(ref + mark.size(), close - ref - mark.size());
        m.erase(ref, close + 1 - ref);
        size_t action = m.find(".action.");
        if (action != std::string::npos) m.replace(0, action, owner);
    }
    // The name after the last index is the method's; the place is the element.
    size_t last = m.rfind(']');
    if (last != std::string::npos) m.erase(last + 1);
    return OrvPolicyReport::documentPath(m, root);
}

void OrvCtlWhy::place(Write& w) const {
    w.place = mPolicy;
    if (mJson.empty()) return;
    OrvPolicyKeyScan scan(mJson);
    OrvPolicyKeyScan::Position p;
    if (!scan.find(documentPath(w.method, mRoot), p)) return;
    w.line = p.line;
    w.column = p.column;
    w.place += ":" + std::to_string(p.line) + ":" + std::to_string(p.column);
}

OrvCtlWhy::Write OrvCtlWhy::findWrite(const std::vector<OrvSimulator::Step>& steps, size_t from,
                                      bool first) const {
    Write w;
    const auto kind = mProperty ? OrvSimulator::Effect::PROP : OrvSimulator::Effect::WRITE;
    for (size_t i = from; i < steps.size(); ++i) {
        for (const auto& e : steps[i].effects) {
            if (e.kind != kind || e.target != mTarget) continue;
            w.found = true;
            w.value = e.after;
            w.method = e.method;
            if (first) break;
        }
        if (first && w.found) break;
    }
    if (w.found) place(w);
    return w;
}

bool OrvCtlWhy::predict(const std::string& dump, const std::vector<std::vector<std::string>>& events,
                        const std::string& when, std::vector<Next>& out) const {
    OrvSimulator sim(true);
    std::vector<OrvSimulator::Step> steps;
    std::string error;
    if (!OrvCtlVerify::reach(sim, mPolicy, dump, steps, error)) return false;
    const size_t from = steps.size();
    for (const auto& words : events) {
        OrvCtlCommand cmd;
        if (!OrvCtlCommand::parse(words, true, cmd, error)) return false;
        for (auto& step : sim.run(cmd, words[0])) steps.push_back(step);
    }
    out.push_back({when, findWrite(steps, from, true)});
    return true;
}

// The ways the current state can end, as trace lines.
std::vector<std::pair<std::string, std::vector<std::vector<std::string>>>> OrvCtlWhy::endsOf(
    const std::string& dump) const {
    const std::string app = OrvCtlVerify::dumpField(dump, "App");
    const std::string state = OrvCtlVerify::dumpField(dump, "State");
    const std::string pid = OrvCtlVerify::dumpField(dump, "PID");
    const int timeout = atoi(OrvCtlVerify::dumpField(dump, "Timeout").c_str());
    std::vector<std::pair<std::string, std::vector<std::vector<std::string>>>> ends;
    if (app.empty()) return ends;
    if (timeout > 0)
        ends.push_back({"its time-out, " + std::to_string(timeout) + " ms after the state began",
                        {{"sleep", std::to_string(timeout)}}});
    if (state == orv::state::kLaunch || state == orv::state::kStart)
        ends.push_back({"the app displayed (the state's end)", {{"displayed", pid, app}}});
    else if (state == "scale")
        ends.push_back({"scale end (the state's end)", {{"scale", "end", pid}}});
    else if (state == "listview_scroll" || state == "listview_fling")
        ends.push_back({"list idle (the state's end)", {{"list", "idle", pid}}});
    else if (state == "rotate")
        ends.push_back({"rotation end (the state's end)", {{"rotate", "anim-end"}}});
    else if (state == "run")
        ends.push_back({"a tap (a gesture; others alike)", {{"gesture", "tap", pid}}});
    ends.push_back({"the next application switch (exit and the default reset)", {{"sleep"}}});
    return ends;
}

int OrvCtlWhy::run(const std::vector<std::string>& args) {
    bool json = false;
    std::vector<std::string> rest;
    for (const auto& a : args) {
        if (a == "--json")
            json = true;
        else
            rest.push_back(a);
    }
    if (rest.empty() || rest.size() > 2) {
        fprintf(stderr, "orvctl: usage: why [--json] NODE_PATH|PROPERTY [POLICY]\n");
        return OrvCtlSession::EXIT_USAGE;
    }
    mTarget = rest[0];
    mProperty = mTarget[0] != '/';
    mPolicy = rest.size() == 2 ? rest[1] : OrvCtlVerify::policyInForce();
    OrvPolicyDocument doc;
    if (doc.load(mPolicy) == OrvPolicyDocument::OK) {
        mRoot = doc.root();
        mJson = doc.json();
    }
    std::string dump;
    int status = mSession.query(orv::DUMP_STATE, "", dump);
    if (status != OrvCtlSession::EXIT_OK) return status;

    OrvSimulator sim(true);
    std::vector<OrvSimulator::Step> steps;
    std::string error;
    if (!OrvCtlVerify::reach(sim, mPolicy, dump, steps, error)) {
        fprintf(stderr, "orvctl: why: %s: %s\n", mPolicy.c_str(), error.c_str());
        return OrvCtlSession::EXIT_REFUSED;
    }
    const std::string app = OrvCtlVerify::dumpField(dump, "App");
    const std::string state = OrvCtlVerify::dumpField(dump, "State");
    const std::string live =
        mProperty ? OrvCtlVerify::liveProperty(mTarget) : OrvCtlVerify::liveNode(mTarget);
    const Write writer = findWrite(steps, 0, false);
    std::vector<std::string> notes;
    notes.push_back(kInferred);
    const bool reached =
        sim.context().mAppName == app && state == sim.context().mState->getStateNameStr();
    if (!reached)
        notes.push_back("the policy does not lead to " +
                        (app.empty() ? std::string(orv::state::kReset) : app + " in " + state) +
                        "; the replay ended in " + sim.context().mState->getStateNameStr());
    if (writer.found && writer.value != live)
        notes.push_back(
            "the device holds another value than that method wrote: something "
            "outside orvd wrote it since, or orvd came here another way");
    std::vector<Next> next;
    for (const auto& end : endsOf(dump)) predict(dump, end.second, end.first, next);

    if (json) {
        Json::Value out;
        out["target"] = mTarget;
        out["kind"] = mProperty ? "property" : "node";
        out["value"] = live;
        out["app"] = app;
        out["state"] = state;
        auto put = [&](const Write& w, Json::Value& j) {
            j["value"] = w.value;
            j["method"] = w.method;
            j["file"] = mPolicy;
            if (w.line > 0) {
                j["line"] = w.line;
                j["column"] = w.column;
            }
        };
        if (writer.found)
            put(writer, out["written_by"]);
        else
            out["written_by"] = Json::Value();
        out["next"] = Json::Value(Json::arrayValue);
        for (const auto& n : next) {
            Json::Value j;
            j["when"] = n.when;
            j["changes"] = n.write.found;
            if (n.write.found) put(n.write, j);
            out["next"].append(j);
        }
        for (const auto& note : notes) out["notes"].append(note);
        Json::StreamWriterBuilder b;
        b["indentation"] = "  ";
        printf("%s\n", Json::writeString(b, out).c_str());
        return OrvCtlSession::EXIT_OK;
    }
    printf("%s = %s\n", mTarget.c_str(), quoted(live).c_str());
    printf("  orvd is in %s\n", app.empty() ? orv::state::kReset : (app + " " + state).c_str());
    if (writer.found)
        printf("  written %s by %s at %s\n", quoted(writer.value).c_str(), writer.method.c_str(),
               writer.place.c_str());
    else
        printf("  no method of the policy writes it on the way here\n");
    for (const auto& n : next) {
        if (n.write.found)
            printf("  next, on %s: %s by %s at %s\n", n.when.c_str(), quoted(n.write.value).c_str(),
                   n.write.method.c_str(), n.write.place.c_str());
        else
            printf("  next, on %s: left as it is\n", n.when.c_str());
    }
    for (const auto& note : notes) printf("  (%s)\n", note.c_str());
    return OrvCtlSession::EXIT_OK;
}
