/* What holds before log_init: nothing in this program may call it. */
#include "common/log.h"

#include <cstdarg>

#include <gtest/gtest.h>

#include "tests/support/output_capture.h"

namespace kolmo
{

namespace
{

using testing::Output;
using testing::output_of;

[[gnu::format(printf, 2, 3)]] void log_list(int priority, const char *format, ...)
{
    std::va_list arguments;

    va_start(arguments, format);
    log_vmessage(priority, format, arguments);
    va_end(arguments);
}

TEST(LogBeforeInit, InfoIsPrintedOnBothStreams)
{
    const Output output = output_of([] { log_message(LOG_INFO, "early %d", 1); });

    EXPECT_EQ(output.err, "early 1\n");
    EXPECT_EQ(output.out, "early 1\n");
}

TEST(LogBeforeInit, DebugIsNotPrinted)
{
    const Output output = output_of([] { log_message(LOG_DEBUG, "early"); });

    EXPECT_EQ(output.err, "");
    EXPECT_EQ(output.out, "");
}

TEST(LogBeforeInit, ListFunctionPrintsOnBothStreams)
{
    const Output output = output_of([] { log_list(LOG_EMERG, "early %s", "list"); });

    EXPECT_EQ(output.err, "early list\n");
    EXPECT_EQ(output.out, "early list\n");
}

TEST(LogBeforeInit, OptionsAreThePidAlone)
{
    EXPECT_EQ(log_get_options(), 0x01u);
}

} // namespace

} // namespace kolmo
