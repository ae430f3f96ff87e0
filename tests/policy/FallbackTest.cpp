// The "*" application entry: unlisted applications, states a listed one lacks, references.
#include "PolicyTestSupport.h"

using namespace policytest;

namespace {

// `star` is the "*" entry; the listed applications write "<app>.<state>|".
std::string fallbackDocument(const std::string& fifo, const std::string& star) {
    return marks(R"({"parser":"v1.0","version":"v1",
      "applications":{
        "*":)" + star +
                     R"(,
        "L":{"param":{"large_heap":"true"},
             "action":{"launch":{"on_enter":[<L.launch|>]},"run":{}}},
        "R":{"action":{"reference":"L"}},
        "F":{"action":{"reference":"*"}},
        "G":{"action":{"rotate":{"policy":[<G.rotate|>]}}},
        "P":{"param":{"scale_timeout":"800"}}}})",
                 fifo);
}

const char* const kStar =
    R"({"param":{"event_mask":"0101","launch_timeout":"900","reference":"P"},
    "action":{"reference":"G","launch":{"on_enter":[<*.launch|>]},"run":{"policy":[<*.run|>]},
              "scale":{"policy":[<*.scale|>]}}})";

using FallbackTest = PolicyTest;

TEST_F(FallbackTest, UnlistedAndUndefinedStatesRunTheFallback) {
    std::string fifo = makeFifo();
    OrvActionManager* manager = start(fallbackDocument(fifo, kStar));
    // Parameters: the fallback's answer unlisted applications only. Asked before the sets run
    // and after.
    const std::vector<ParamRow> params = {
        {"U", "event_mask", "0101"},
        {"L", "event_mask", nullptr},  // a listed app keeps to its own
        {"L", "large_heap", "true"},
        {"U", "large_heap", nullptr},
        // The time-out of a state comes with the state: L takes scale from the fallback, which
        // refers to P for it...
        {"L", "scale_timeout", "800"},
        {"U", "scale_timeout", "800"},
        // ...but has launch of its own.
        {"L", "launch_timeout", nullptr},
        {"U", "launch_timeout", "900"},
    };
    expectParams(manager, params, "before");
    struct Row {
        const char* app;
        const char* state;
        const char* written;
    };
    const Row rows[] = {
        {"U", "launch", "*.launch|"},  // unlisted, the fallback has the state
        {"U", "rotate", "G.rotate|"},  // unlisted, through the fallback's own reference
        {"U", "listview_fling", ""},   // unlisted, nobody has the state
        {"L", "launch", "L.launch|"},  // listed with the state: its own only
        {"L", "run", ""},              // listed with the state empty: opted out
        {"L", "scale", "*.scale|"},    // listed without the state
        {"R", "run", ""},              // the opt-out holds through a reference
        {"R", "scale", "*.scale|"},    // as does the fallback
        {"F", "launch", "*.launch|"},  // a reference to the fallback
        {"G", "launch", "*.launch|"},  // listed, state lacking
        {"G", "rotate", "G.rotate|"},
    };
    for (const Row& r : rows) {
        (new StateChange("start", r.state, r.app, 1, 2))->send(manager);
        sync(manager);
        EXPECT_EQ(r.written, drainFifo()) << r.app << " " << r.state;
    }
    expectParams(manager, params, "after");
    // The set is named after the application that ran it, and where it came from.
    auto db = parseDB(fallbackDocument(fifo, kStar));
    OrvActionManager::OrvAction action("start", "launch", "U", 1, 2);
    mLog.clear();
    db->executeStateChangeAction(&action);
    EXPECT_EQ("*.launch|", drainFifo());
    EXPECT_TRUE(mLog.has("fetch U.action.launch.on_enter reference *"));
    EXPECT_TRUE(db->findApp("U"));
    EXPECT_FALSE(db->findApp(""));
}

// An entry that defines nothing covers nothing: unlisted applications stay unknown.
TEST_F(FallbackTest, AnEmptyFallbackCoversNothing) {
    std::string fifo = makeFifo();
    for (const char* star : {"{}", R"({"action":{},"param":{}})"}) {
        auto db = parseDB(fallbackDocument(fifo, star));
        EXPECT_FALSE(db->findApp("U")) << star;
        OrvActionManager::OrvAction action("start", "scale", "L", 1, 2);
        db->executeStateChangeAction(&action);
        EXPECT_EQ("", drainFifo()) << star;
    }
}

}  // namespace
