// Action sets are remembered once found: every later run must write and log exactly what a
// fresh walk down the document would.
#include <tuple>

#include "PolicyTestSupport.h"

using namespace policytest;

namespace {

using ActionSetCacheTest = PolicyTest;

TEST_F(ActionSetCacheTest, RepeatedRunsWriteAndLogAsTheFirst) {
    std::string fifo = makeFifo();
    auto db = parseDB(marks(R"({"parser":"v1.0","version":"v1","applications":{
        "A":{"action":{"run":{"on_enter":[<A.run|>]}}},
        "B":{"action":{"reference":"A"}},
        "E":{"action":{"run":"oops","reference":"A"}},
        "F":{"action":{"reference":5}},
        "G":{"action":{}}}})",
                            fifo));
    auto run = [&](const char* app, const char* state, const std::string& written,
                   const std::string& errorLines, const std::string& when) {
        mLog.clear();
        StateChange action("start", state, app, 1, 2);
        db->executeOnEnterAction(&action);
        EXPECT_EQ(written, drainFifo()) << app << " " << state << " " << when;
        EXPECT_EQ(errorLines, errors()) << app << " " << state << " " << when;
    };
    // App, state entered, what gets written, the error lines of that run.
    const std::tuple<const char*, const char*, std::string, std::string> rows[] = {
        {"A", "run", "A.run|", ""},
        {"B", "run", "A.run|", ""},  // through a reference
        {"B", "launch", "", ""},     // no set anywhere on the chain
        {"E", "run", "A.run|", "Invalid policy DB: applications.E.action.run is not an object"},
        {"F", "run", "", "Invalid policy DB: applications.F.action.reference is not text"},
        {"G", "run", "", ""},
    };
    for (int round = 0; round < 3; ++round) {
        for (const auto& [app, state, written, errorLines] : rows)
            run(app, state, written, errorLines, "round " + std::to_string(round));
    }
    // A state of that name turns G's missing "reference" into an object, and from then on every
    // run of G reports it.
    const std::string notText = "Invalid policy DB: applications.G.action.reference is not text";
    run("G", "reference", "", notText, "");
    for (int round = 0; round < 2; ++round)
        run("G", "run", "", notText, "after, round " + std::to_string(round));
}

}  // namespace
