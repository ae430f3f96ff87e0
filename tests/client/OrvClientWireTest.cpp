// Every typed call of the native client, and every orvctl command, puts on the wire exactly the
// bytes orvctl wrote before both were built on the protocol header (orvctl-frames.txt).
#include <gtest/gtest.h>
#include <orv/OrvClient.h>

#include <fstream>
#include <functional>
#include <map>

#include "client/WireRecorder.h"
#include "support/ToolRun.h"

namespace orvtest {
namespace {

using Call = std::function<std::optional<std::string>(OrvClient&)>;

// An event call answers nothing; wrapped so that one table holds events and queries.
template <typename F>
Call event(F f) {
    return [f](OrvClient& c) -> std::optional<std::string> {
        f(c);
        return std::nullopt;
    };
}

// The client call that stands for each orvctl command of the reference file.
const std::map<std::string, Call>& calls() {
    const std::string app = "com.example.app";
    static const std::map<std::string, Call> table = {
        {"proc-start 1234 com.example.app", event([=](OrvClient& c) { c.processStart(1234, app); })},
        {"proc-die 1234 com.example.app", event([=](OrvClient& c) { c.processDie(1234, app); })},
        {"launch com.example.app", event([=](OrvClient& c) { c.launch(app); })},
        {"start 1234 com.example.app", event([=](OrvClient& c) { c.start(1234, app); })},
        {"displayed 1234 com.example.app", event([=](OrvClient& c) { c.displayed(1234, app); })},
        {"transit 1234 com.example.app 5678 com.example.other",
         event([=](OrvClient& c) { c.transition(1234, app, 5678, "com.example.other"); })},
        {"rotate start", event([](OrvClient& c) { c.rotate(orv::Rotate::Start); })},
        {"rotate anim-start", event([](OrvClient& c) { c.rotate(orv::Rotate::AnimationStart); })},
        {"rotate anim-end", event([](OrvClient& c) { c.rotate(orv::Rotate::AnimationEnd); })},
        {"list idle 1234", event([](OrvClient& c) { c.listView(orv::ListView::Idle, 1234); })},
        {"list scroll 1234", event([](OrvClient& c) { c.listView(orv::ListView::Scroll, 1234); })},
        {"list fling 1234", event([](OrvClient& c) { c.listView(orv::ListView::Fling, 1234); })},
        {"gesture down 1234", event([](OrvClient& c) { c.gesture(orv::Gesture::Down, 1234); })},
        {"gesture press 1234", event([](OrvClient& c) { c.gesture(orv::Gesture::Press, 1234); })},
        {"gesture tap 1234", event([](OrvClient& c) { c.gesture(orv::Gesture::Tap, 1234); })},
        {"gesture scroll 1234", event([](OrvClient& c) { c.gesture(orv::Gesture::Scroll, 1234); })},
        {"gesture fling 1234", event([](OrvClient& c) { c.gesture(orv::Gesture::Fling, 1234); })},
        {"gesture long-press 1234",
         event([](OrvClient& c) { c.gesture(orv::Gesture::LongPress, 1234); })},
        {"scale start 1234", event([](OrvClient& c) { c.scale(orv::Scale::Start, 1234); })},
        {"scale continue 1234", event([](OrvClient& c) { c.scale(orv::Scale::Continue, 1234); })},
        {"scale end 1234", event([](OrvClient& c) { c.scale(orv::Scale::End, 1234); })},
        {"gl-attach 1234 1240", event([](OrvClient& c) { c.glThreadAttach(1234, 1240); })},
        {"gl-detach 1234 1240", event([](OrvClient& c) { c.glThreadDetach(1234, 1240); })},
        {"large-heap 1234", [](OrvClient& c) { return c.largeHeap(1234); }},
        {"heap-utilization 1234", [](OrvClient& c) { return c.heapUtilization(1234); }},
        {"hw-accel 1234", [](OrvClient& c) { return c.hardwareAcceleration(1234); }},
        {"thermal-mask com.example.app", [=](OrvClient& c) { return c.thermalMask(app); }},
        {"send 301 /data/local/tmp/new-policy",
         event([](OrvClient& c) { c.update("/data/local/tmp/new-policy"); })},
        {"sleep", event([](OrvClient& c) { c.goingToSleep(); })},
        {"wake", event([](OrvClient& c) { c.wakingUp(); })},
        {"event-mask com.example.app", [=](OrvClient& c) { return c.eventMask(app); }},
        {"event-mask --pid 1234", [](OrvClient& c) { return c.eventMaskOfPid(1234); }},
        {"timeout", event([](OrvClient& c) { c.timeout(); })},
        {"dump", [](OrvClient& c) { return c.dump(); }},
    };
    return table;
}

struct Reference {
    std::string words;
    std::string frame;
};

std::vector<Reference> references() {
    std::vector<Reference> out;
    std::ifstream in(source("tests/client/orvctl-frames.txt"));
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        size_t tab = line.find('\t');
        out.push_back({line.substr(0, tab), line.substr(tab + 1)});
    }
    return out;
}

TEST(OrvClientWire, EveryCallWritesTheFrameOrvctlWrote) {
    TempRoot root;
    WireRecorder wire(root / "orvd.sock");
    OrvClient::Options options;
    options.socketPath = root / "orvd.sock";
    options.queryTimeoutMs = 5000;
    OrvClient client(options);
    const auto refs = references();
    ASSERT_EQ(refs.size(), calls().size()) << "a command without a call, or a call too many";
    for (const auto& ref : refs) {
        auto call = calls().find(ref.words);
        ASSERT_NE(call, calls().end()) << ref.words;
        wire.clear();
        std::optional<std::string> answer = call->second(client);
        ASSERT_TRUE(client.flush(5000)) << ref.words;
        EXPECT_TRUE(eventually([&] { return wire.bytes() == ref.frame; }))
            << ref.words << ": " << wire.bytes();
        const int code = atoi(ref.frame.c_str() + 1);
        if (orv::expectsReply(code, ref.frame.substr(ref.frame.find(']') + 1))) {
            EXPECT_EQ(answer, std::optional<std::string>("ok")) << ref.words;
        }
    }
    EXPECT_EQ(client.stats().dropped, 0u);
}

TEST(OrvctlWire, EveryCommandWritesItsReferenceFrame) {
    TempRoot root;
    WireRecorder wire(root / "orvd.sock");
    for (const auto& ref : references()) {
        wire.clear();
        ToolResult r =
            runTool(root, "orvctl", "--socket " + shellQuote(root / "orvd.sock") + " " + ref.words);
        EXPECT_EQ(r.status, 0) << ref.words << ": " << r.err;
        EXPECT_TRUE(eventually([&] { return wire.bytes() == ref.frame; }))
            << ref.words << ": " << wire.bytes();
    }
}

}  // namespace
}  // namespace orvtest
