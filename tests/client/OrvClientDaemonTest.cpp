// The native client against the real orvd: effects, answers, restarts, and a caller that must
// never wait while orvd is gone, parked without a policy or stopped by SIGSTOP.
#include <gtest/gtest.h>
#include <orv/OrvClient.h>
#include <signal.h>

#include <future>
#include <memory>

#include "tools/ExampleDaemon.h"

namespace orvtest {
namespace {

// Applications of the example policy; others do not change the state.
const char kApp[] = "com.android.chrome";
const char kOtherApp[] = "com.android.launcher3";

OrvClient::Options optionsFor(const TempRoot& root) {
    OrvClient::Options options;
    options.socketPath = root / "dev/socket/orvd";
    options.queryTimeoutMs = 4000;
    options.backoffMaxMs = 50;
    return options;
}

std::string dumpOf(OrvClient& client) {
    return client.dump().value_or("");
}

TEST(OrvClientDaemon, EventsChangeTheStateAndQueriesMatchOrvctl) {
    TempRoot root;
    ExampleDaemon orvd(root, false);
    ASSERT_TRUE(orvd.ready()) << orvd.log();
    OrvClient client(optionsFor(root));

    client.processStart(4321, kApp);
    client.glThreadAttach(4321, 4330);
    client.start(4321, kApp);
    client.displayed(4321, kApp);
    ASSERT_TRUE(client.flush(10000));
    EXPECT_TRUE(eventually(
        [&] {
            const std::string dump = dumpOf(client);
            return dump.find(std::string("App       : ") + kApp) != std::string::npos &&
                   dump.find(std::string("State     : ") + orv::state::kRun) != std::string::npos;
        },
        10000))
        << dumpOf(client);
    client.gesture(orv::Gesture::Fling, 4321);
    EXPECT_TRUE(eventually(
        [&] { return dumpOf(client).find(orv::state::kGestureFling) != std::string::npos; }, 10000))
        << dumpOf(client);

    // Each answer as orvctl gets it for the same question.
    struct Ask {
        const char* orvctl;
        std::function<std::optional<std::string>()> call;
    } asks[] = {
        {"event-mask com.android.chrome", [&] { return client.eventMask(kApp); }},
        {"event-mask --pid 4321", [&] { return client.eventMaskOfPid(4321); }},
        {"large-heap 4321", [&] { return client.largeHeap(4321); }},
        {"heap-utilization 4321", [&] { return client.heapUtilization(4321); }},
        {"hw-accel 4321", [&] { return client.hardwareAcceleration(4321); }},
        {"thermal-mask com.android.chrome", [&] { return client.thermalMask(kApp); }},
    };
    for (const auto& ask : asks) {
        ToolResult expected = runTool(root, "orvctl", ask.orvctl);
        ASSERT_EQ(expected.status, 0) << ask.orvctl << ": " << expected.err;
        EXPECT_EQ(ask.call(), expected.out.substr(0, expected.out.size() - 1)) << ask.orvctl;
    }
    EXPECT_EQ(client.stats().dropped, 0u);
}

TEST(OrvClientDaemon, ReconnectsAfterOrvdRestarts) {
    TempRoot root;
    auto orvd = std::make_unique<ExampleDaemon>(root, false);
    ASSERT_TRUE(orvd->ready()) << orvd->log();
    OrvClient client(optionsFor(root));
    client.start(100, kApp);
    EXPECT_TRUE(eventually([&] { return dumpOf(client).find(kApp) != std::string::npos; }, 10000));

    orvd.reset();
    orvd = std::make_unique<ExampleDaemon>(root, false);
    ASSERT_TRUE(orvd->ready()) << orvd->log();
    // Events sent into the gap may be dropped; once orvd is back they arrive again.
    EXPECT_TRUE(eventually(
        [&] {
            client.start(200, kOtherApp);
            client.flush(1000);
            return dumpOf(client).find(kOtherApp) != std::string::npos;
        },
        20000))
        << dumpOf(client);
    EXPECT_GE(client.stats().connects, 2u);
}

// The daemon side of one outage test.
struct Scene {
    const TempRoot& root;
    std::unique_ptr<ExampleDaemon> orvd;
    std::unique_ptr<Orvd> parked;
};

// What makes orvd unable to take anything in, and how it is undone.
struct Outage {
    const char* name;
    void (*begin)(Scene&);
    void (*end)(Scene&);
};

void restart(Scene& s) {
    s.orvd = std::make_unique<ExampleDaemon>(s.root, false);
}

// Without a policy orvd parks for ever and never listens.
void park(Scene& s) {
    s.orvd.reset();
    unlink((s.root / "data/orvpolicy").c_str());
    s.parked = std::make_unique<Orvd>(s.root);
    s.parked->start(false);
    eventually([&] { return readFile(s.root / "dev/__properties__/sys.orv.enable") == "false"; });
}

void unpark(Scene& s) {
    s.parked.reset();
    restart(s);
}

const Outage kOutages[] = {
    // orvd is not running at all.
    {"Stopped", [](Scene& s) { s.orvd.reset(); }, restart},
    // orvd runs without a policy and never listens.
    {"Parked", park, unpark},
    // orvd is stopped by SIGSTOP: it accepts nothing and reads nothing.
    {"Wedged", [](Scene& s) { kill(s.orvd->pid(), SIGSTOP); },
     [](Scene& s) { kill(s.orvd->pid(), SIGCONT); }},
};

void PrintTo(const Outage& outage, std::ostream* os) {
    *os << outage.name;
}

class OrvClientOutage : public ::testing::TestWithParam<Outage> {};

TEST_P(OrvClientOutage, CallerNeverWaitsAndCountsWhatItDropped) {
    TempRoot root;
    Scene scene{root, std::make_unique<ExampleDaemon>(root, false), nullptr};
    ASSERT_TRUE(scene.orvd->ready()) << scene.orvd->log();
    OrvClient::Options options = optionsFor(root);
    options.queryTimeoutMs = 200;
    OrvClient client(options);
    client.start(100, kApp);
    ASSERT_TRUE(eventually([&] { return client.stats().sent == 1; }, 10000));
    GetParam().begin(scene);

    // Far more than the queue and the socket's buffer hold: a caller that waited on orvd
    // would never get through them.
    const uint64_t kEvents = 100000;
    auto calls = std::async(std::launch::async, [&] {
        for (uint64_t i = 0; i < kEvents; ++i) client.gesture(orv::Gesture::Tap, 4321);
        return client.eventMask(kApp);
    });
    ASSERT_EQ(calls.wait_for(std::chrono::seconds(60)), std::future_status::ready)
        << "a caller waited on orvd";
    EXPECT_FALSE(calls.get().has_value()) << "an answer from an orvd that cannot answer";
    // All but what still waits in the queue or in the one write under way is counted one way or
    // the other.
    EXPECT_TRUE(eventually(
        [&] {
            OrvClient::Stats s = client.stats();
            return s.dropped > 0 &&
                   s.dropped + s.sent >= kEvents - options.queueCapacity - orv::kReadMax;
        },
        10000))
        << "sent " << client.stats().sent << ", dropped " << client.stats().dropped;

    GetParam().end(scene);
    EXPECT_TRUE(eventually([&] { return client.eventMask(kApp).has_value(); }, 20000));
}

INSTANTIATE_TEST_SUITE_P(Outages, OrvClientOutage, ::testing::ValuesIn(kOutages),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace orvtest
