// Every state x every event, for the tracked application and for another one, against the
// transition table: next state, ids, screen flag, time-out, the action executed, the warning and
// the timer calls.
#include <stdio.h>

#include <functional>
#include <map>

#include "OrvDaemonTestUtil.h"
#include "scenario/OrvState.h"

namespace {

using orvtest::ScenarioEnv;

enum Ev {
    Reset,
    Launch,
    Start,
    Displayed,
    ScaleStart,
    ScaleEnd,
    ListScroll,
    ListFling,
    ListIdle,
    Transit,
    RotateStart,
    RotateStop,
    Attach,
    ProcStart,
    ScreenOff,
    ScreenOn,
    GDown,
    GPress,
    GTap,
    GScroll,
    GFling,
    GLongPress,
    Timeout,
    EvCount
};

struct EventInfo {
    const char* op;  // as in the warning texts
    bool hasApp;
};

const EventInfo kEvents[EvCount] = {
    {"onReset", false},           {"onLaunch", true},        {"onStart", true},
    {"onDisplayed", true},        {"onScaleStart", true},    {"onScaleEnd", true},
    {"onListScroll", true},       {"onListFling", true},     {"onListIdle", true},
    {"onTransit", true},          {"onRotateStart", false},  {"onRotateStop", false},
    {"onAttachGLThread", true},   {"onProcStart", true},     {"onScreenOff", false},
    {"onScreenOn", false},        {"onGestureDown", true},   {"onGesturePress", true},
    {"onGestureTap", true},       {"onGestureScroll", true}, {"onGestureFling", true},
    {"onGestureLongPress", true}, {"onTimeout", false},
};

const char* const kGestureOf[EvCount] = {nullptr,         nullptr,
                                         nullptr,         nullptr,
                                         nullptr,         nullptr,
                                         nullptr,         nullptr,
                                         nullptr,         nullptr,
                                         nullptr,         nullptr,
                                         nullptr,         nullptr,
                                         nullptr,         nullptr,
                                         "gesture_down",  "gesture_press",
                                         "gesture_tap",   "gesture_scroll",
                                         "gesture_fling", "gesture_long_press",
                                         nullptr};

// Columns: reset, launch, start, run, scale, listview_scroll, listview_fling, rotate, gesture_*.
// "g:X" is OrvRun's gesture move (T, ->X, +arm); "own" marks the gesture column's M.
const char* const kTable[EvCount][9] = {
    /* Reset      */ {"-", "R", "R", "R", "R", "R", "R", "R", "R"},
    /* Launch     */
    {"=>launch", "L", "L", "=>launch", "=>launch", "=>launch", "=>launch", "=>launch", "T=>launch"},
    /* Start      */ {"=>start", "S", "S", "S", "S", "S", "S", "S", "GS"},
    /* Displayed  */ {"-", "->run", "->run", "P", "P", "P", "P", "P", "GP"},
    /* ScaleStart */ {"-", "D", "D", "->scale", "D", "D", "D", "D", "T->scale"},
    /* ScaleEnd   */ {"-", "D", "D", "D", "->run", "D", "D", "D", "D"},
    /* ListScroll */
    {"-", "D", "D", "->listview_scroll", "->listview_scroll", "D", "D", "D", "T->listview_scroll"},
    /* ListFling  */
    {"-", "D", "D", "->listview_fling", "->listview_fling", "->listview_fling", "D", "D",
     "T->listview_fling"},
    /* ListIdle   */ {"-", "D", "D", "D", "D", "->run", "->run", "I", "D"},
    /* Transit    */ {"=>run", "X", "X", "Y", "Y", "Y", "Y", "Y", "GY"},
    /* RotStart   */ {"-", "W", "W", "rot", "rot", "rot", "rot", "W", "Trot"},
    /* RotStop    */ {"-", "W", "W", "W", "W", "W", "W", "run", "W"},
    /* Attach     */ {"-", "G", "G", "A", "A", "A", "A", "A", "A"},
    /* ProcStart  */ {"-", "-", "-", "-", "-", "-", "-", "-", "-"},
    /* ScreenOff  */ {"off", "F", "F", "F", "F", "F", "F", "F", "F"},
    /* ScreenOn   */ {"on", "N", "N", "N", "N", "N", "N", "N", "N"},
    /* GDown      */ {"-", "W", "W", "g:gesture_down", "W", "-", "-", "W", "own"},
    /* GPress     */ {"-", "W", "W", "g:gesture_press", "W", "W", "W", "W", "own"},
    /* GTap       */ {"-", "W", "W", "g:gesture_tap", "W", "W", "W", "W", "own"},
    /* GScroll    */ {"-", "W", "W", "g:gesture_scroll", "W", "-", "-", "W", "own"},
    /* GFling     */ {"-", "W", "W", "g:gesture_fling", "W", "-", "-", "W", "own"},
    /* GLongPress */ {"-", "W", "W", "g:gesture_long_press", "W", "W", "W", "W", "own"},
    /* Timeout    */ {"W", "W", "W", "W", "W", "W", "W", "W", "run"},
};

const char* const kStates[] = {"reset",          "launch",
                               "start",          "run",
                               "scale",          "listview_scroll",
                               "listview_fling", "rotate",
                               "gesture_down",   "gesture_press",
                               "gesture_tap",    "gesture_scroll",
                               "gesture_fling",  "gesture_long_press"};

int columnOf(const std::string& state) {
    static const std::map<std::string, int> cols = {
        {"reset", 0}, {"launch", 1},          {"start", 2},          {"run", 3},
        {"scale", 4}, {"listview_scroll", 5}, {"listview_fling", 6}, {"rotate", 7}};
    auto it = cols.find(state);
    return it == cols.end() ? 8 : it->second;
}

// com.a's gesture time-outs in the small policy; every other application gets the default.
int timeoutOf(const std::string& app, const std::string& state) {
    if (app == "com.a" && state == "gesture_down") return 250;
    if (app == "com.a" && state == "gesture_tap") return 7000;
    return 100;
}

struct Snap {
    std::string state, app;
    int pid, tid;
    bool screen;
    int timeout;
    bool operator==(const Snap& o) const {
        return state == o.state && app == o.app && pid == o.pid && tid == o.tid &&
               screen == o.screen && timeout == o.timeout;
    }
};

std::ostream& operator<<(std::ostream& os, const Snap& s) {
    return os << s.state << " app=" << s.app << " pid=" << s.pid << " tid=" << s.tid
              << " screen=" << s.screen << " timeout=" << s.timeout;
}

Snap snap(OrvContext& ctx) {
    return {ctx.mState->getStateNameStr(),
            ctx.mAppName,
            ctx.mPid,
            ctx.mGLTid,
            ctx.mIsScreenOn,
            ctx.mTimeout};
}

struct Outcome {
    Snap after;
    std::vector<std::string> actions;
    std::vector<std::string> warnings;  // tag "OrvState"
    std::vector<std::string> timer;     // "reset timer" / "set timer(N ms)"
};

std::string appSwitch(const Snap& from, const std::string& app, int pid, int tid,
                      const std::string& state) {
    char line[512];
    snprintf(line, sizeof(line), "APP-SWITCH from[%s, %d, %d, %s] to[%s, %d, %d, %s] event[]",
             from.app.c_str(), from.pid, from.tid, from.state.c_str(), app.c_str(), pid, tid,
             state.c_str());
    return line;
}

std::string stateChange(const Snap& s, const std::string& to) {
    char line[512];
    snprintf(line, sizeof(line), "STATE-CHANGE from[%s, %d, %d, %s] to[%s, %d, %d, %s] event[]",
             s.app.c_str(), s.pid, s.tid, s.state.c_str(), s.app.c_str(), s.pid, s.tid, to.c_str());
    return line;
}

struct Args {
    std::string name;
    int pid, tid;
};

// What the table says about one cell, worked out independently of the state classes.
Outcome expect(const Snap& b, Ev ev, const Args& a, const std::string& cell) {
    Outcome o{b, {}, {}, {}};
    std::string mark = cell;
    bool same = a.name == b.app;
    std::string ignored =
        std::string("unexpected ") + kEvents[ev].op + " event is ignored by default.";
    std::string resetLine =
        std::string("unexpected ") + kEvents[ev].op + " event causes state reset by default.";

    auto reset = [&](bool screen) {
        o.actions.push_back(appSwitch(o.after, "", -1, -1, "reset"));
        o.after = {"reset", "", -1, -1, screen, 0};
    };
    auto switchTo = [&](const std::string& state, int pid, int tid) {
        o.actions.push_back(appSwitch(o.after, a.name, pid, tid, state));
        o.after = {state, a.name, pid, tid, o.after.screen, 0};
    };
    auto move = [&](const std::string& state) {
        o.actions.push_back(stateChange(o.after, state));
        o.after.state = state;
        o.after.timeout = columnOf(state) == 8 ? timeoutOf(o.after.app, state) : 0;
    };
    auto cancel = [&] { o.timer.push_back("reset timer"); };
    auto arm = [&] { o.timer.push_back("set timer(" + std::to_string(o.after.timeout) + " ms)"); };

    if (mark.rfind("T", 0) == 0) {
        cancel();
        mark = mark.substr(1);
    }
    if (mark == "-") {
    } else if (mark == "W") {
        o.warnings.push_back(ignored);
    } else if (mark == "R") {
        reset(true);
    } else if (mark == "L") {
        o.warnings.push_back(resetLine);
        reset(true);
    } else if (mark == "D") {
        if (same) {
            o.after.pid = a.pid;
            o.warnings.push_back(ignored);
        } else {
            o.warnings.push_back(resetLine);
            reset(true);
        }
    } else if (mark == "A" || mark == "G" || mark == "X" || mark == "S" || mark == "I") {
        if (same) {
            o.after.pid = a.pid;
            if (mark != "I") o.after.tid = a.tid;
        } else if (mark == "S") {
            switchTo("start", a.pid, a.tid);
        } else {
            if (mark == "A") o.warnings.push_back(resetLine);
            reset(true);
        }
    } else if (mark == "Y") {
        if (same) {
            o.after.pid = a.pid;
            o.after.tid = a.tid;
        } else {
            switchTo("run", a.pid, a.tid);
        }
    } else if (mark == "P") {
        if (same) o.after.pid = a.pid;
    } else if (mark == "GS" || mark == "GY" || mark == "GP") {
        cancel();
        if (same) {
            o.after.pid = a.pid;
            if (mark != "GP") o.after.tid = a.tid;
            move("run");
        } else if (mark != "GP") {
            switchTo(mark == "GS" ? "start" : "run", a.pid, a.tid);
        }
    } else if (mark.rfind("->", 0) == 0) {
        if (same) {
            o.after.pid = a.pid;
            move(mark.substr(2));
        } else {
            reset(true);
        }
    } else if (mark.rfind("=>", 0) == 0) {
        std::string to = mark.substr(2);
        if (to == "launch") {
            switchTo(to, -1, -1);
        } else {
            switchTo(to, a.pid, a.tid);
        }
    } else if (mark == "rot" || mark == "run") {
        move(mark == "rot" ? "rotate" : "run");
    } else if (mark == "F" || mark == "N") {
        o.after.screen = mark == "N";
        reset(mark == "N");
    } else if (mark == "off" || mark == "on") {
        o.after.screen = mark == "on";
    } else if (mark.rfind("g:", 0) == 0) {
        cancel();
        if (same) {
            o.after.pid = a.pid;
            move(mark.substr(2));
            arm();
        } else {
            reset(true);
        }
    } else if (mark == "own") {
        cancel();
        if (same) {
            o.after.pid = a.pid;
            arm();
        } else {
            reset(true);
        }
    } else {
        ADD_FAILURE() << "unknown mark " << mark;
    }
    return o;
}

void apply(OrvContext& ctx, Ev ev, const Args& a) {
    const char* n = a.name.c_str();
    switch (ev) {
        case Reset:
            ctx.mState->onReset(&ctx);
            break;
        case Launch:
            ctx.onLaunch(n);
            break;
        case Start:
            ctx.onStart(n, a.pid, a.tid);
            break;
        case Displayed:
            ctx.onDisplayed(n, a.pid);
            break;
        case ScaleStart:
            ctx.onScaleStart(n, a.pid);
            break;
        case ScaleEnd:
            ctx.onScaleEnd(n, a.pid);
            break;
        case ListScroll:
            ctx.onListScroll(n, a.pid);
            break;
        case ListFling:
            ctx.onListFling(n, a.pid);
            break;
        case ListIdle:
            ctx.onListIdle(n, a.pid);
            break;
        case Transit:
            ctx.onTransit(4242, "com.from", a.pid, n, a.tid);
            break;
        case RotateStart:
            ctx.onRotateStart();
            break;
        case RotateStop:
            ctx.onRotateStop();
            break;
        case Attach:
            ctx.onAttachGLThread(n, a.pid, a.tid);
            break;
        case ProcStart:
            ctx.mState->onProcStart(&ctx, n, a.pid);
            break;
        case ScreenOff:
            ctx.onScreenOff();
            break;
        case ScreenOn:
            ctx.onScreenOn();
            break;
        case GDown:
            ctx.onGestureDown(n, a.pid);
            break;
        case GPress:
            ctx.onGesturePress(n, a.pid);
            break;
        case GTap:
            ctx.onGestureTap(n, a.pid);
            break;
        case GScroll:
            ctx.onGestureScroll(n, a.pid);
            break;
        case GFling:
            ctx.onGestureFling(n, a.pid);
            break;
        case GLongPress:
            ctx.onGestureLongPress(n, a.pid);
            break;
        case Timeout:
            ctx.onTimeout();
            break;
        case EvCount:
            break;
    }
}

// Drives a fresh context from reset into `state` for com.a (pid 100, GL tid 7).
void driveTo(OrvContext& ctx, const std::string& state) {
    if (state == "reset") return;
    if (state == "launch") {
        ctx.onLaunch("com.a");
        return;
    }
    ctx.onStart("com.a", 100, 7);
    if (state == "start") return;
    ctx.onDisplayed("com.a", 100);
    const std::map<std::string, std::function<void()>> last = {
        {"run", [] {}},
        {"scale", [&] { ctx.onScaleStart("com.a", 100); }},
        {"listview_scroll", [&] { ctx.onListScroll("com.a", 100); }},
        {"listview_fling", [&] { ctx.onListFling("com.a", 100); }},
        {"rotate", [&] { ctx.onRotateStart(); }},
        {"gesture_down", [&] { ctx.onGestureDown("com.a", 100); }},
        {"gesture_press", [&] { ctx.onGesturePress("com.a", 100); }},
        {"gesture_tap", [&] { ctx.onGestureTap("com.a", 100); }},
        {"gesture_scroll", [&] { ctx.onGestureScroll("com.a", 100); }},
        {"gesture_fling", [&] { ctx.onGestureFling("com.a", 100); }},
        {"gesture_long_press", [&] { ctx.onGestureLongPress("com.a", 100); }},
    };
    last.at(state)();
}

std::vector<std::string> timerLines(const orvtest::LogCapture& log) {
    std::vector<std::string> out;
    for (const auto& t : log.texts("OrvTimer"))
        if (t == "reset timer" || t.rfind("set timer(", 0) == 0) out.push_back(t);
    return out;
}

class StateTableTest : public ::testing::TestWithParam<const char*> {};

TEST_P(StateTableTest, EveryEventMatchesTheTable) {
    ScenarioEnv env;
    ASSERT_TRUE(env.ready());
    const std::string state = GetParam();
    const int col = columnOf(state);

    for (int e = 0; e < EvCount; ++e) {
        Ev ev = static_cast<Ev>(e);
        std::vector<Args> variants;
        if (kEvents[ev].hasApp) {
            variants = {{"com.a", 101, 9}, {"com.b", 200, 8}};
        } else {
            variants = {{"", 0, 0}};
        }
        for (const Args& a : variants) {
            SCOPED_TRACE(std::string(state) + " x " + kEvents[ev].op + "(" + a.name + ")");
            OrvContext ctx;
            ctx.mActionManager = env.manager();
            driveTo(ctx, state);
            ASSERT_EQ(state, ctx.mState->getStateNameStr());
            ASSERT_TRUE(env.sync());
            env.log().clear();

            Snap before = snap(ctx);
            std::string cell = kTable[ev][col];
            if (cell == "own" && kGestureOf[ev] != state) {
                cell = kTable[ev][columnOf("run")];  // another gesture: as in run
            }
            Outcome want = expect(before, ev, a, cell);
            apply(ctx, ev, a);
            ASSERT_TRUE(env.sync());

            EXPECT_EQ(want.after, snap(ctx)) << "cell " << cell;
            EXPECT_EQ(want.actions, env.actions()) << "cell " << cell;
            EXPECT_EQ(want.warnings, env.log().texts("OrvState")) << "cell " << cell;
            EXPECT_EQ(want.timer, timerLines(env.log())) << "cell " << cell;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(AllStates, StateTableTest, ::testing::ValuesIn(kStates),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                             return std::string(info.param);
                         });

}  // namespace
