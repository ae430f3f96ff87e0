// Every state x every event, for the tracked application, another known one and one the policy
// lacks: next state, ids, screen flag, time-out, the action executed, the warning, the timer calls.
#include <optional>
#include <string>
#include <vector>

#include "OrvDaemonTestUtil.h"
#include "scenario/OrvState.h"

namespace {

struct Args {
    const char* n;
    int pid, tid;
};
#define FIRE(call) [](OrvContext& c, const Args& a) { (void)a, c.call; }

// The events; `app` ones are fired for com.a, com.b and com.x, the others once.
struct Event {
    const char* name;
    bool app;
    void (*fire)(OrvContext&, const Args&);
};
// clang-format off
const Event kEvents[] = {
    {"onReset",            false, FIRE(mState->onReset(&c))},
    {"onLaunch",           true,  FIRE(onLaunch(a.n))},
    {"onStart",            true,  FIRE(onStart(a.n, a.pid, a.tid))},
    {"onDisplayed",        true,  FIRE(onDisplayed(a.n, a.pid))},
    {"onScaleStart",       true,  FIRE(onScaleStart(a.n, a.pid))},
    {"onScaleEnd",         true,  FIRE(onScaleEnd(a.n, a.pid))},
    {"onListScroll",       true,  FIRE(onListScroll(a.n, a.pid))},
    {"onListFling",        true,  FIRE(onListFling(a.n, a.pid))},
    {"onListIdle",         true,  FIRE(onListIdle(a.n, a.pid))},
    {"onTransit",          true,  FIRE(onTransit(4242, "com.from", a.pid, a.n, a.tid))},
    {"onRotateStart",      false, FIRE(onRotateStart())},
    {"onRotateStop",       false, FIRE(onRotateStop())},
    {"onAttachGLThread",   true,  FIRE(onAttachGLThread(a.n, a.pid, a.tid))},
    {"onProcStart",        true,  FIRE(mState->onProcStart(&c, a.n, a.pid))},
    {"onScreenOff",        false, FIRE(onScreenOff())},
    {"onScreenOn",         false, FIRE(onScreenOn())},
    {"onGestureDown",      true,  FIRE(onGestureDown(a.n, a.pid))},
    {"onGesturePress",     true,  FIRE(onGesturePress(a.n, a.pid))},
    {"onGestureTap",       true,  FIRE(onGestureTap(a.n, a.pid))},
    {"onGestureScroll",    true,  FIRE(onGestureScroll(a.n, a.pid))},
    {"onGestureFling",     true,  FIRE(onGestureFling(a.n, a.pid))},
    {"onGestureLongPress", true,  FIRE(onGestureLongPress(a.n, a.pid))},
    {"onTimeout",          false, FIRE(onTimeout())},
};
// clang-format on

// Name, the event that enters it from run, com.a's time-out in the policy.
struct St {
    const char *name, *via;
    int ms;
};
// clang-format off
const St kStates[] = {
    {"reset", "", 0},                         {"launch", "", 0},
    {"start", "", 0},                         {"run", "", 0},
    {"scale", "onScaleStart", 0},             {"listview_scroll", "onListScroll", 0},
    {"listview_fling", "onListFling", 0},     {"rotate", "onRotateStart", 0},
    {"gesture_down", "onGestureDown", 250},   {"gesture_press", "onGesturePress", 100},
    {"gesture_tap", "onGestureTap", 7000},    {"gesture_scroll", "onGestureScroll", 100},
    {"gesture_fling", "onGestureFling", 100}, {"gesture_long_press", "onGestureLongPress", 100},
};
// clang-format on

enum Warning { NONE, IGNORED, RESETS };  // "... is ignored by default." / "... causes state reset"
enum Screen { KEEP, OFF, ON };

// What one event does, in the order it happens.
struct Effect {
    bool cancel = false;  // the timer
    bool pid = false;     // the event's pid, and GL thread id, become the context's
    bool tid = false;
    Warning warn = NONE;
    Screen screen = KEEP;
    bool reset = false;              // an "APP-SWITCH" to reset
    const char* move = nullptr;      // a "STATE-CHANGE" to this state, none when already there
    const char* switchTo = nullptr;  // an "APP-SWITCH" to the event's app (reset if unknown)
    bool arm = false;                // the timer, with the new state's time-out
};
const Effect kNothing;
const Effect kIgnored{.warn = IGNORED};
const Effect kReset{.reset = true};
const Effect kWarnedReset{.warn = RESETS, .reset = true};
const Effect kCancelledReset{.cancel = true, .reset = true};

// What entering a gesture does for the tracked app: its timer starts over.
Effect startsGesture(const char* state) {
    return {.cancel = true, .pid = true, .move = state, .arm = true};
}

// The first row that names both an event and a state ("*": every state; "gesture_*": the six
// gesture states) says what the event does there: `tracked` when it comes from the application
// the context tracks (or, in reset, comes from none), else `other` (`tracked` when not given).
struct Row {
    std::vector<std::string> on;  // events
    std::vector<std::string> in;  // states
    Effect tracked;
    std::optional<Effect> other = std::nullopt;
};
// clang-format off
const Row kRows[] = {
    // In reset only a launch, start, hand-over, the screen and time-outs mean anything.
    {.on = {"onReset", "onDisplayed", "onScaleStart", "onScaleEnd", "onListScroll", "onListFling",
            "onListIdle", "onRotateStart", "onRotateStop", "onAttachGLThread", "onGestureDown",
            "onGesturePress", "onGestureTap", "onGestureScroll", "onGestureFling",
            "onGestureLongPress"}, .in = {"reset"}, .tracked = kNothing},
    // A process start changes nothing by itself; a finger on a moving list is no gesture.
    {.on = {"onProcStart"}, .in = {"*"}, .tracked = kNothing},
    {.on = {"onGestureDown", "onGestureScroll", "onGestureFling"},
     .in = {"listview_scroll", "listview_fling"}, .tracked = kNothing},
    // Anything else goes back to reset.
    {.on = {"onReset"}, .in = {"*"}, .tracked = kReset},
    // A second launch before the first displayed: give up on both.
    {.on = {"onLaunch"}, .in = {"launch", "start"}, .tracked = kWarnedReset},
    // Else a launch switches to the app, ids unknown yet, and ends a gesture's timer.
    {.on = {"onLaunch"}, .in = {"gesture_*"}, .tracked = {.cancel = true, .switchTo = "launch"}},
    {.on = {"onLaunch"}, .in = {"*"}, .tracked = {.switchTo = "launch"}},
    // A start switches to its app; the tracked app's only updates the ids, or ends a gesture.
    {.on = {"onStart"}, .in = {"reset"}, .tracked = {.switchTo = "start"}},
    {.on = {"onStart"}, .in = {"gesture_*"},
     .tracked = {.cancel = true, .pid = true, .tid = true, .move = "run"},
     .other = Effect{.cancel = true, .switchTo = "start"}},
    {.on = {"onStart"}, .in = {"*"}, .tracked = {.pid = true, .tid = true},
     .other = Effect{.switchTo = "start"}},
    // The first frame ends a launch in run; another app's frame resets it.
    {.on = {"onDisplayed"}, .in = {"launch", "start"}, .tracked = {.pid = true, .move = "run"},
     .other = kReset},
    // A frame ends a gesture too; another app's only stops the gesture's timer.
    {.on = {"onDisplayed"}, .in = {"gesture_*"},
     .tracked = {.cancel = true, .pid = true, .move = "run"}, .other = Effect{.cancel = true}},
    // Elsewhere a frame updates the pid; another app's passes silently.
    {.on = {"onDisplayed"}, .in = {"*"}, .tracked = {.pid = true}, .other = kNothing},
    // Scaling starts from run or a gesture, and ends in run.
    {.on = {"onScaleStart"}, .in = {"run"}, .tracked = {.pid = true, .move = "scale"},
     .other = kReset},
    {.on = {"onScaleStart"}, .in = {"gesture_*"},
     .tracked = {.cancel = true, .pid = true, .move = "scale"}, .other = kCancelledReset},
    {.on = {"onScaleEnd"}, .in = {"scale"}, .tracked = {.pid = true, .move = "run"},
     .other = kReset},
    // A list scrolls from run, scale or a gesture; it flings from those and a scroll.
    {.on = {"onListScroll"}, .in = {"run", "scale"},
     .tracked = {.pid = true, .move = "listview_scroll"}, .other = kReset},
    {.on = {"onListFling"}, .in = {"run", "scale", "listview_scroll"},
     .tracked = {.pid = true, .move = "listview_fling"}, .other = kReset},
    {.on = {"onListScroll"}, .in = {"gesture_*"},
     .tracked = {.cancel = true, .pid = true, .move = "listview_scroll"}, .other = kCancelledReset},
    {.on = {"onListFling"}, .in = {"gesture_*"},
     .tracked = {.cancel = true, .pid = true, .move = "listview_fling"}, .other = kCancelledReset},
    // The list comes to rest in run; while the screen turns it only updates the pid.
    {.on = {"onListIdle"}, .in = {"listview_scroll", "listview_fling"},
     .tracked = {.pid = true, .move = "run"}, .other = kReset},
    {.on = {"onListIdle"}, .in = {"rotate"}, .tracked = {.pid = true}, .other = kReset},
    // Anywhere else the content events are ignored, or reset when another app sends them.
    {.on = {"onScaleStart", "onScaleEnd", "onListScroll", "onListFling", "onListIdle"}, .in = {"*"},
     .tracked = {.pid = true, .warn = IGNORED}, .other = kWarnedReset},
    // A hand-over from reset runs the app handed the foreground.
    {.on = {"onTransit"}, .in = {"reset"}, .tracked = {.switchTo = "run"}},
    // During a launch the tracked app takes the ids; another one resets.
    {.on = {"onTransit"}, .in = {"launch", "start"}, .tracked = {.pid = true, .tid = true},
     .other = kReset},
    // Elsewhere the tracked app keeps its state (a gesture ends); another runs.
    {.on = {"onTransit"}, .in = {"gesture_*"},
     .tracked = {.cancel = true, .pid = true, .tid = true, .move = "run"},
     .other = Effect{.cancel = true, .switchTo = "run"}},
    {.on = {"onTransit"}, .in = {"*"}, .tracked = {.pid = true, .tid = true},
     .other = Effect{.switchTo = "run"}},
    // The display turns out of run, scale, the list states and gestures; not while launching.
    {.on = {"onRotateStart"}, .in = {"launch", "start", "rotate"}, .tracked = kIgnored},
    {.on = {"onRotateStart"}, .in = {"gesture_*"}, .tracked = {.cancel = true, .move = "rotate"}},
    {.on = {"onRotateStart"}, .in = {"*"}, .tracked = {.move = "rotate"}},
    // Only a rotation ends in run.
    {.on = {"onRotateStop"}, .in = {"rotate"}, .tracked = {.move = "run"}},
    {.on = {"onRotateStop"}, .in = {"*"}, .tracked = kIgnored},
    // The tracked app takes its GL thread; another app's resets (silently during a launch).
    {.on = {"onAttachGLThread"}, .in = {"launch", "start"}, .tracked = {.pid = true, .tid = true},
     .other = kReset},
    {.on = {"onAttachGLThread"}, .in = {"*"}, .tracked = {.pid = true, .tid = true},
     .other = kWarnedReset},
    // The screen going off or on resets whatever runs.
    {.on = {"onScreenOff"}, .in = {"reset"}, .tracked = {.screen = OFF}},
    {.on = {"onScreenOff"}, .in = {"*"}, .tracked = {.screen = OFF, .reset = true}},
    {.on = {"onScreenOn"}, .in = {"reset"}, .tracked = {.screen = ON}},
    {.on = {"onScreenOn"}, .in = {"*"}, .tracked = {.screen = ON, .reset = true}},
    // A gesture starts from run or another gesture, its timer anew; another app's resets.
    {.on = {"onGestureDown"}, .in = {"run", "gesture_*"}, .tracked = startsGesture("gesture_down"),
     .other = kCancelledReset},
    {.on = {"onGesturePress"}, .in = {"run", "gesture_*"},
     .tracked = startsGesture("gesture_press"), .other = kCancelledReset},
    {.on = {"onGestureTap"}, .in = {"run", "gesture_*"}, .tracked = startsGesture("gesture_tap"),
     .other = kCancelledReset},
    {.on = {"onGestureScroll"}, .in = {"run", "gesture_*"},
     .tracked = startsGesture("gesture_scroll"), .other = kCancelledReset},
    {.on = {"onGestureFling"}, .in = {"run", "gesture_*"},
     .tracked = startsGesture("gesture_fling"), .other = kCancelledReset},
    {.on = {"onGestureLongPress"}, .in = {"run", "gesture_*"},
     .tracked = startsGesture("gesture_long_press"), .other = kCancelledReset},
    // Anywhere else a gesture is ignored.
    {.on = {"onGestureDown", "onGesturePress", "onGestureTap", "onGestureScroll", "onGestureFling",
            "onGestureLongPress"}, .in = {"*"}, .tracked = kIgnored},
    // Only a gesture times out, back to run.
    {.on = {"onTimeout"}, .in = {"gesture_*"}, .tracked = {.move = "run"}},
    {.on = {"onTimeout"}, .in = {"*"}, .tracked = kIgnored},
};
// clang-format on

bool names(const std::vector<std::string>& list, const std::string& name) {
    for (const auto& n : list)
        if (n == name || n == "*" || (n == "gesture_*" && name.compare(0, 8, "gesture_") == 0))
            return true;
    return false;
}

// The row of `event` in `state`: the first that names both.
const Row* rowOf(const std::string& event, const std::string& state) {
    for (const Row& r : kRows)
        if (names(r.on, event) && names(r.in, state)) return &r;
    return nullptr;
}

struct Snap {
    std::string state, app;
    int pid, tid, screen, timeout;
};
std::string ids(const Snap& s, bool all = false) {
    return s.app + ", " + std::to_string(s.pid) + ", " + std::to_string(s.tid) + ", " + s.state +
           (all ? (s.screen ? " on " : " off ") + std::to_string(s.timeout) : "");
}
Snap snap(OrvContext& c) {
    return {c.mState->getStateNameStr(), c.mAppName, c.mPid, c.mGLTid, c.mIsScreenOn, c.mTimeout};
}

struct Outcome {
    Snap after;
    std::vector<std::string> actions, warnings, timer;
};

int timeoutOf(const std::string& state) {
    for (const St& st : kStates)
        if (state == st.name) return st.ms;
    ADD_FAILURE() << "no state " << state;
    return 0;
}

// What the table says about one event, worked out independently of the state classes.
Outcome expect(Snap s, const Row& row, const std::string& event, const Args& a) {
    const Effect& e = a.n == s.app || !row.other ? row.tracked : *row.other;
    Outcome o;
    auto record = [&](const char* kind, const Snap& next) {
        o.actions.push_back(std::string(kind) + " from[" + ids(s) + "] to[" + ids(next) +
                            "] event[]");
        s = next;
    };
    if (e.cancel) o.timer.push_back("reset timer");
    if (e.pid) s.pid = a.pid;
    if (e.tid) s.tid = a.tid;
    if (e.warn == IGNORED)
        o.warnings.push_back("unexpected " + event + " event is ignored by default.");
    if (e.warn == RESETS)
        o.warnings.push_back("unexpected " + event + " event causes state reset by default.");
    if (e.screen != KEEP) s.screen = e.screen == ON;
    if (e.reset) record("APP-SWITCH", {"reset", "", -1, -1, s.screen, 0});
    if (e.move && s.state != e.move)
        record("STATE-CHANGE", {e.move, s.app, s.pid, s.tid, s.screen, timeoutOf(e.move)});
    if (e.switchTo) {
        const bool launch = std::string(e.switchTo) == "launch";
        record("APP-SWITCH",
               std::string(a.n) == "com.x"
                   ? Snap{"reset", "", -1, -1, s.screen, 0}  // unknown to the policy
                   : Snap{e.switchTo, a.n, launch ? -1 : a.pid, launch ? -1 : a.tid, s.screen, 0});
    }
    if (e.arm) o.timer.push_back("set timer(" + std::to_string(s.timeout) + " ms)");
    o.after = s;
    return o;
}

// From a fresh context into `st` for com.a (pid 100, GL tid 7).
void driveTo(OrvContext& c, const St& st) {
    std::string name = st.name;
    if (name == "launch") c.onLaunch("com.a");
    if (name == "reset" || name == "launch") return;
    c.onStart("com.a", 100, 7);
    if (name != "start") c.onDisplayed("com.a", 100);
    for (const Event& ev : kEvents)
        if (std::string(ev.name) == st.via) ev.fire(c, {"com.a", 100, 7});
}

class StateTableTest : public ::testing::TestWithParam<int> {};

TEST_P(StateTableTest, EveryEventMatchesTheTable) {
    orvtest::ScenarioEnv env;
    const St& st = kStates[GetParam()];
    for (const Event& ev : kEvents) {
        const Row* row = rowOf(ev.name, st.name);
        ASSERT_NE(nullptr, row) << ev.name;
        std::vector<Args> variants = {{"", 0, 0}};
        if (ev.app) variants = {{"com.a", 101, 9}, {"com.b", 200, 8}, {"com.x", 300, 6}};
        for (const Args& a : variants) {
            SCOPED_TRACE(std::string(st.name) + " x " + ev.name + "(" + a.n + ")");
            OrvContext ctx;
            ctx.mActionManager = env.manager;
            driveTo(ctx, st);
            ASSERT_EQ(std::string(st.name), ctx.mState->getStateNameStr());
            ASSERT_TRUE(env.sync());
            env.log.clear();
            Outcome want = expect(snap(ctx), *row, ev.name, a);
            ev.fire(ctx, a);
            ASSERT_TRUE(env.sync());
            std::vector<std::string> timer;
            for (const auto& t : env.log.texts("OrvTimer"))
                if (t == "reset timer" || t.rfind("set timer(", 0) == 0) timer.push_back(t);
            EXPECT_EQ(ids(want.after, true), ids(snap(ctx), true));
            EXPECT_EQ(want.actions, env.actions());
            EXPECT_EQ(want.warnings, env.log.texts("OrvState"));
            EXPECT_EQ(want.timer, timer);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(AllStates, StateTableTest, ::testing::Range(0, 14),
                         [](const testing::TestParamInfo<int>& i) { return kStates[i.param].name; });

}  // namespace
