/* What holds before log_init: nothing in this program may call it. */
#include "common/log.h"

#include <gtest/gtest.h>

#include "tests/common/log_list.h"
#include "tests/support/output_capture.h"

namespace kolmo::testing
{

namespace
{

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

} // namespace kolmo::testing
