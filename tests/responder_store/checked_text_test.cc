#include "responder_store/kit/checked_text.h"

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"

namespace kolmo::testing
{

namespace
{

TEST(LogFailure, FillsTheTextsInAtPriorityThree)
{
    LogCapture log;

    log_failure("Unable to %s: %s", "100%s", "");
    EXPECT_EQ(log.take_one(), "3 Unable to 100%s: ");
}

/* As the compiler does it, which refuses a table's text by these numbers. */
TEST(CheckedText, CountsTextsAndParameters)
{
    const struct {
        const char *text;
        std::size_t texts;
        std::size_t parameters;
    } rows[] = {{"", 0, 0},         {"text", 0, 0},     {"%s", 1, 0},    {"a %s, %s?", 2, 1}, {"%", 1000, 0},
                {"100%%", 2000, 0}, {"%d %s", 1001, 0}, {"?,?,?", 0, 3}, {"s? ?", 0, 2}};

    for (const auto &row : rows) {
        EXPECT_EQ(count_texts(row.text), row.texts) << row.text;
        EXPECT_EQ(count_parameters(row.text), row.parameters) << row.text;
    }
}

} // namespace

} // namespace kolmo::testing
