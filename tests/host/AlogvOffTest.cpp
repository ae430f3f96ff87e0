// Verbose logging as a device release build has it: compiled out unless LOG_NDEBUG is 0.
#define LOG_NDEBUG 1
#define LOG_TAG "AlogvOff"
#include <gtest/gtest.h>
#include <log/log.h>

#include "support/OrvTestSupport.h"

TEST(Alogv, CompiledOutUnlessLogNdebugIsZero) {
    orvtest::LogCapture log;
    int evaluated = 0;
    ALOGV("never %d", ++evaluated);
    if (evaluated == 0) ALOGV("no record");  // a statement where a statement is expected
    ALOGD("after");
    EXPECT_EQ(0, evaluated) << "the arguments are not evaluated";
    EXPECT_EQ(std::vector<std::string>{"after"}, log.texts("AlogvOff"));
}
