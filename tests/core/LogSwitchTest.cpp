// The debug switch follows "sys.orv.debug.daemon"; the stop-watch counts even while it is off.
#include <cutils/properties.h>
#include <gtest/gtest.h>

#include "core/OrvDevicePath.h"
#include "core/OrvLog.h"
#include "core/OrvStopWatch.h"
#include "support/OrvTestSupport.h"

namespace {

class LogSwitchTest : public ::testing::Test {
  protected:
    orvtest::TempRoot mRoot;
    orvtest::LogCapture mLog;
};

TEST_F(LogSwitchTest, FollowsThePropertyAndLogsOnlyChanges) {
    struct Step {
        const char* value;  // nullptr: leave the property unset
        bool on;
        const char* line;  // expected "OrvLog" line, or nullptr for none
    };
    const Step steps[] = {
        {nullptr, false, nullptr},        // unset reads as "0"
        {"1", true, "OrvLog toggle On"},  //
        {"true", true, nullptr},          // still on: silent
        {"false", false, "OrvLog toggle Off"},
        {"0", false, nullptr},  // still off: silent
        {"on", true, "OrvLog toggle On"},
        {"0", false, "OrvLog toggle Off"},
        {"yes", true, "OrvLog toggle On"},
        {"", false, "OrvLog toggle Off"},  // empty reads as the default "0"
        {"00", true, "OrvLog toggle On"},  // only "0" and "false" mean off
        {"False", true, nullptr},
    };
    for (const Step& s : steps) {
        SCOPED_TRACE(s.value ? s.value : "(unset)");
        mLog.clear();
        if (s.value) {
            ASSERT_EQ(0, property_set(PROP_LOG_ENABLE, s.value));
        }
        OrvLogUpdateToggle();
        EXPECT_EQ(s.on, OrvLogIsEnabled());
        auto lines = mLog.texts("OrvLog");
        if (s.line) {
            ASSERT_EQ(1u, lines.size());
            EXPECT_EQ(s.line, lines[0]);
            EXPECT_EQ(ANDROID_LOG_INFO, mLog.records()[0].prio);
        } else {
            EXPECT_TRUE(lines.empty());
        }
    }
    EXPECT_STREQ("sys.orv.debug.daemon", PROP_LOG_ENABLE);
}

TEST_F(LogSwitchTest, StopWatchCountsSilentChecksAndPrintsUnborrowedDifferences) {
    property_set(PROP_LOG_ENABLE, "0");
    OrvLogUpdateToggle();
    OrvStopWatch watch("w");
    watch.start(">start");
    watch.check("a");
    watch.check("b");
    watch.stop("c");
    EXPECT_TRUE(mLog.texts("OrvStopWatch").empty());
    EXPECT_EQ(3, watch.getCount());

    property_set(PROP_LOG_ENABLE, "1");
    OrvLogUpdateToggle();
    watch.check("d");
    auto lines = mLog.texts("OrvStopWatch");
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(0u, lines[0].find("w[4]-d: inc:")) << lines[0];
    // Seconds and microseconds are two separate differences, each "%ld.%06ld".
    long incS, incUs, totS, totUs;
    ASSERT_EQ(4, sscanf(lines[0].c_str(), "w[4]-d: inc:%ld.%ld, total:%ld.%ld", &incS, &incUs,
                        &totS, &totUs));
    EXPECT_GE(totS, 0);

    mLog.clear();
    watch.start(">restart");
    EXPECT_EQ(std::vector<std::string>{"w[0]->restart: inc:0.0, total:0.0"},
              mLog.texts("OrvStopWatch"));
    EXPECT_EQ(0, watch.getCount());
    gWatch.start(">=========================");
    EXPECT_TRUE(mLog.has("gWatch[0]->=========================: inc:0.0, total:0.0"));
}

TEST_F(LogSwitchTest, FixedDeviceLocationsLiveUnderTheRoot) {
    EXPECT_EQ(mRoot.path() + "/data/orvpolicy", OrvDevicePath("/data/orvpolicy"));
    setenv("ORV_ROOT", "", 1);
    EXPECT_EQ("/data/orvpolicy", OrvDevicePath("/data/orvpolicy"));
    unsetenv("ORV_ROOT");
    EXPECT_EQ("/system/etc/orvpolicy", OrvDevicePath("/system/etc/orvpolicy"));
}

}  // namespace
