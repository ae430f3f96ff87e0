// The context's own rules that the state table cannot reach: its dump, its debug switch, the
// screen-off reset, the large time-out warning and the base-class defaults.
#include "OrvDaemonTestUtil.h"
#include "scenario/OrvState.h"

namespace {

struct ContextTest : ::testing::Test {
    orvtest::ScenarioEnv env;
    OrvContext& ctx = env.ctx;
    void runA() { ctx.onStart("com.a", 100, 7), ctx.onDisplayed("com.a", 100); }
    std::string state() { return ctx.mState->getStateNameStr(); }
    std::string dump() {
        std::string out = "stale";
        return ctx.dumpState(out), out;
    }
};

TEST_F(ContextTest, DumpScreenOffAndTheLargeTimeoutWarning) {
    const std::string fresh =
        "[Context]:\n   App       : \n   State     : reset\n"
        "   PID       : -1\n   GLTID     : -1\n   Timeout   : 0\n"
        "   IsScreenOn: true\n";
    EXPECT_EQ(fresh, dump());
    runA();
    ctx.onGestureTap("com.a", 100);  // 7000 ms is used, with a warning
    ctx.onGestureDown("com.a", 100);
    EXPECT_TRUE(env.log.has("gesture_tap_timeout = 7000 is quite large!", "OrvContext"));
    EXPECT_EQ(1, env.log.countContaining("quite large"));
    ctx.onScreenOff();
    ASSERT_TRUE(env.sync());
    env.log.clear();
    ctx.onScreenOff();  // in reset: the flag only; reset stays closed until the screen is on
    ctx.onLaunch("com.a");
    ctx.onStart("com.a", 1, 2);
    ctx.onTransit(0, "", 1, "com.a", 2);
    ASSERT_TRUE(env.sync());
    EXPECT_TRUE(env.actions().empty());
    std::string off = fresh;
    EXPECT_EQ(off.replace(off.find("true"), 4, "false"), dump());
    ctx.onScreenOn();
    ctx.onTransit(0, "", -1, "com.a", 2);  // an unknown pid never leaves reset
    ctx.onLaunch("com.unknown");
    EXPECT_EQ("reset", state());
    EXPECT_TRUE(env.log.has("Change state to reset.(target:com.unknown)", "OrvContext"));
    ctx.onTransit(1, "x", 300, "com.b", 12);
    EXPECT_NE(std::string::npos, dump().find("   App       : com.b\n   State     : run\n"
                                             "   PID       : 300\n   GLTID     : 12\n"))
        << dump();
}

// The switch is tested at each call. (The lines' wording is what "orvctl monitor" reads; its
// test holds it.)
TEST_F(ContextTest, DebugOffSilencesTheContext) {
    ctx.onStart("com.a", 100, 7);
    EXPECT_FALSE(env.log.texts("OrvContext").empty());
    orvtest::setDebug(false);
    env.log.clear();
    ctx.onDisplayed("com.a", 100);
    EXPECT_EQ("run", state());
    EXPECT_TRUE(env.log.texts("OrvContext").empty());
}

// Defaults that every concrete state overrides, reached through a qualified call.
TEST_F(ContextTest, BaseDefaultsForTransitAndStart) {
    runA();
    OrvState* run = ctx.mState;
    // The very text object of the context's name: ids taken, event ignored.
    run->OrvState::onTransit(&ctx, 0, "", 55, ctx.mAppName.c_str(), 66);
    EXPECT_EQ("run", state());
    EXPECT_EQ(55, ctx.mPid);
    EXPECT_EQ(66, ctx.mGLTid);
    EXPECT_TRUE(env.log.has("unexpected onTransit event is ignored by default.", "OrvState"));
    // An equal text elsewhere is not the same object: reset.
    std::string copy = ctx.mAppName;
    run->OrvState::onTransit(&ctx, 0, "", 55, copy.c_str(), 66);
    EXPECT_EQ("reset", state());
    EXPECT_TRUE(
        env.log.has("unexpected onTransit event causes state reset by default.", "OrvState"));

    ctx.onStart("com.a", 100, 7);
    ctx.mIsScreenOn = false;
    ctx.mState->OrvState::onStart(&ctx, "com.a", 1, 2);
    EXPECT_EQ("reset", state());
    EXPECT_TRUE(ctx.mIsScreenOn);
    EXPECT_TRUE(env.log.has("unexpected onStart event causes state reset by default.", "OrvState"));
}

}  // namespace
