#include "responder_store/kit/checked_text.h"

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"

namespace kolmo
{

namespace
{

using testing::LogCapture;

TEST(LogFailure, FillsTheTextsInAtPriorityThree)
{
    LogCapture log;

    log_failure("Unable to %s: %s", "100%s", "");
    EXPECT_EQ(log.take_one(), "3 Unable to 100%s: ");
}

} // namespace

} // namespace kolmo
