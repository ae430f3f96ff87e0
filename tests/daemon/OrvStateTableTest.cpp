// Every state x every event, for the tracked application, another known one and one the policy
// lacks: next state, ids, screen flag, time-out, the action executed, the warning, the timer calls.
#include <map>
#include <sstream>

#include "OrvDaemonTestUtil.h"
#include "scenario/OrvState.h"

namespace {

struct Args {
    const char* n;
    int pid, tid;
};
#define ON(call) [](OrvContext& c, const Args& a) { (void)a, c.call; }

// Key used in cells, name, the event that enters it from run, com.a's time-out in the policy.
struct St {
    const char *key, *name, *via;
    int ms;
};
// clang-format off
const St kStates[] = {
    {"", "reset", "", 0},                         {"L", "launch", "", 0},
    {"S", "start", "", 0},                        {"R", "run", "", 0},
    {"C", "scale", "onScaleStart", 0},            {"LS", "listview_scroll", "onListScroll", 0},
    {"LF", "listview_fling", "onListFling", 0},   {"O", "rotate", "onRotateStart", 0},
    {"GD", "gesture_down", "onGestureDown", 250}, {"GP", "gesture_press", "onGesturePress", 100},
    {"GT", "gesture_tap", "onGestureTap", 7000},  {"GS", "gesture_scroll", "onGestureScroll", 100},
    {"GF", "gesture_fling", "onGestureFling", 100},
    {"GL", "gesture_long_press", "onGestureLongPress", 100},
};
// clang-format on

// One cell per column: reset launch start run scale listview_scroll listview_fling rotate, then one
// for all gesture states. A cell is "ops[:state]", split as "same app/other app" where they differ.
// Ops in order: c cancel timer, p/t take the pid/tid, w "ignored" warning, x "reset" warning,
// r reset, f/n screen off/on, m move (nothing when already there), s app switch, a arm timer.
struct Row {
    const char* op;
    bool app;
    const char* cells;
    void (*fire)(OrvContext&, const Args&);
};
// clang-format off
const Row kRows[] = {
    {"onReset",            0, "- r r r r r r r r",                            ON(mState->onReset(&c))},
    {"onLaunch",           1, "s:L L L s:L s:L s:L s:L s:L cs:L",             ON(onLaunch(a.n))},
    {"onStart",            1, "s:S S S S S S S S cptm:R/cs:S",                ON(onStart(a.n, a.pid, a.tid))},
    {"onDisplayed",        1, "- pm:R/r pm:R/r P P P P P cpm:R/c",            ON(onDisplayed(a.n, a.pid))},
    {"onScaleStart",       1, "- D D pm:C/r D D D D cpm:C/cr",                ON(onScaleStart(a.n, a.pid))},
    {"onScaleEnd",         1, "- D D D pm:R/r D D D D",                       ON(onScaleEnd(a.n, a.pid))},
    {"onListScroll",       1, "- D D pm:LS/r pm:LS/r D D D cpm:LS/cr",        ON(onListScroll(a.n, a.pid))},
    {"onListFling",        1, "- D D pm:LF/r pm:LF/r pm:LF/r D D cpm:LF/cr",  ON(onListFling(a.n, a.pid))},
    {"onListIdle",         1, "- D D D D pm:R/r pm:R/r p/r D",                ON(onListIdle(a.n, a.pid))},
    {"onTransit",          1, "s:R X X Y Y Y Y Y cptm:R/cs:R",                ON(onTransit(4242, "com.from", a.pid, a.n, a.tid))},
    {"onRotateStart",      0, "- w w m:O m:O m:O m:O w cm:O",                 ON(onRotateStart())},
    {"onRotateStop",       0, "- w w w w w w m:R w",                          ON(onRotateStop())},
    {"onAttachGLThread",   1, "- X X A A A A A A",                            ON(onAttachGLThread(a.n, a.pid, a.tid))},
    {"onProcStart",        1, "- - - - - - - - -",                            ON(mState->onProcStart(&c, a.n, a.pid))},
    {"onScreenOff",        0, "f fr fr fr fr fr fr fr fr",                    ON(onScreenOff())},
    {"onScreenOn",         0, "n nr nr nr nr nr nr nr nr",                    ON(onScreenOn())},
    {"onGestureDown",      1, "- w w cpma:GD/cr w - - w cpma:GD/cr",          ON(onGestureDown(a.n, a.pid))},
    {"onGesturePress",     1, "- w w cpma:GP/cr w w w w cpma:GP/cr",          ON(onGesturePress(a.n, a.pid))},
    {"onGestureTap",       1, "- w w cpma:GT/cr w w w w cpma:GT/cr",          ON(onGestureTap(a.n, a.pid))},
    {"onGestureScroll",    1, "- w w cpma:GS/cr w - - w cpma:GS/cr",          ON(onGestureScroll(a.n, a.pid))},
    {"onGestureFling",     1, "- w w cpma:GF/cr w - - w cpma:GF/cr",          ON(onGestureFling(a.n, a.pid))},
    {"onGestureLongPress", 1, "- w w cpma:GL/cr w w w w cpma:GL/cr",          ON(onGestureLongPress(a.n, a.pid))},
    {"onTimeout",          0, "w w w w w w w w m:R",                          ON(onTimeout())},
};
const std::map<std::string, std::string> kAlias = {{"D", "pw/xr"}, {"A", "pt/xr"}, {"X", "pt/r"},
    {"S", "pt/s:S"}, {"Y", "pt/s:R"}, {"P", "p/-"}, {"L", "xr"}};
// clang-format on

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

// What the table says about one cell, worked out independently of the state classes.
Outcome expect(Snap s, const Row& ev, const Args& a, std::string cell) {
    if (kAlias.count(cell)) cell = kAlias.at(cell);
    size_t slash = cell.find('/'), colon;
    if (slash != std::string::npos)
        cell = a.n == s.app ? cell.substr(0, slash) : cell.substr(slash + 1);
    static const St kNone{"", "?", "", 0};  // a target-less move or switch then fails visibly
    const St* to = &kNone;
    if ((colon = cell.find(':')) != std::string::npos)
        for (const St& st : kStates)
            if (cell.substr(colon + 1) == st.key) to = &st;
    const bool launch = std::string(to->name) == "launch";
    Outcome o;
    auto record = [&](const char* kind, const Snap& next) {
        o.actions.push_back(std::string(kind) + " from[" + ids(s) + "] to[" + ids(next) +
                            "] event[]");
        s = next;
    };
    // clang-format off
    for (char c : cell.substr(0, colon)) {
        switch (c) {
            case '-': break;
            case 'c': o.timer.push_back("reset timer"); break;
            case 'p': s.pid = a.pid; break;
            case 't': s.tid = a.tid; break;
            case 'w': o.warnings.push_back("unexpected " + std::string(ev.op) + " event is ignored by default."); break;
            case 'x': o.warnings.push_back("unexpected " + std::string(ev.op) + " event causes state reset by default."); break;
            case 'f': case 'n': s.screen = c == 'n'; break;
            case 'r': record("APP-SWITCH", {"reset", "", -1, -1, s.screen, 0}); break;
            case 's': record("APP-SWITCH", std::string(a.n) == "com.x" ? Snap{"reset", "", -1, -1, s.screen, 0}  // unknown to the policy
                                            : Snap{to->name, a.n, launch ? -1 : a.pid, launch ? -1 : a.tid, s.screen, 0}); break;
            case 'm': if (s.state != to->name) record("STATE-CHANGE", {to->name, s.app, s.pid, s.tid, s.screen, to->ms}); break;
            case 'a': o.timer.push_back("set timer(" + std::to_string(s.timeout) + " ms)"); break;
            default: ADD_FAILURE() << "bad cell " << cell;
        }
    }
    // clang-format on
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
    for (const Row& r : kRows)
        if (std::string(r.op) == st.via) r.fire(c, {"com.a", 100, 7});
}

class StateTableTest : public ::testing::TestWithParam<int> {};

TEST_P(StateTableTest, EveryEventMatchesTheTable) {
    orvtest::ScenarioEnv env;
    const St& st = kStates[GetParam()];
    for (const Row& ev : kRows) {
        std::istringstream cells(ev.cells);
        std::string cell;
        for (int i = 0; i <= std::min(GetParam(), 8); ++i) cells >> cell;
        std::vector<Args> variants = {{"", 0, 0}};
        if (ev.app) variants = {{"com.a", 101, 9}, {"com.b", 200, 8}, {"com.x", 300, 6}};
        for (const Args& a : variants) {
            SCOPED_TRACE(std::string(st.name) + " x " + ev.op + "(" + a.n + ") cell " + cell);
            OrvContext ctx;
            ctx.mActionManager = env.manager;
            driveTo(ctx, st);
            ASSERT_EQ(std::string(st.name), ctx.mState->getStateNameStr());
            ASSERT_TRUE(env.sync());
            env.log.clear();
            Outcome want = expect(snap(ctx), ev, a, cell);
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
