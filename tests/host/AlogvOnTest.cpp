#define LOG_NDEBUG 0
#define LOG_TAG "AlogvOn"
#include <gtest/gtest.h>
#include <log/log.h>

#include "support/OrvTestSupport.h"

TEST(Alogv, LogsWhenLogNdebugIsZero) {
    orvtest::LogCapture log;
    ALOGV("verbose %d", 2);
    auto recs = log.records();
    ASSERT_EQ(1u, recs.size());
    EXPECT_EQ(ANDROID_LOG_VERBOSE, recs[0].prio);
    EXPECT_EQ("verbose 2", recs[0].text);
}
