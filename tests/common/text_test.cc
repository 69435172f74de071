#include "common/text.h"

#include <string>

#include <gtest/gtest.h>

#include "common/owned.h"
#include "tests/support/alloc_faults.h"
#include "tests/support/log_capture.h"

namespace kolmo::testing
{

namespace
{

using ::testing::ExitedWithCode;

TEST(Xasprintf, FormatsIntoNewMemory)
{
    const OwnedText text(xasprintf("%s@%.*s %d", "box", 7, "example.com", -1));

    EXPECT_STREQ(text.get(), "box@example -1");
}

TEST(Xasprintf, EmptyTextIsAText)
{
    const OwnedText text(xasprintf("%s", ""));

    EXPECT_STREQ(text.get(), "");
}

TEST(Xasprintf, LongTextIsWhole)
{
    const std::string part(100000, 'x');
    const OwnedText text(xasprintf("%s!", part.c_str()));

    EXPECT_EQ(text.get(), part + '!');
}

TEST(Xasprintf, RunningOutOfMemoryEndsTheProcessWithStatusOne)
{
    EXPECT_EXIT(
        {
            const AllocFaults faults(1);
            (void)xasprintf("%s", "text");
        },
        ExitedWithCode(1),
        "^Cannot allocate memory: Cannot allocate memory\nSystem error 12: Cannot allocate memory\n$");
}

TEST(StrTolower, LowersAsciiAndKeepsEveryOtherByte)
{
    char text[] = "ABC xyz @[`{ 019 \xc3\x84";

    str_tolower(text);
    EXPECT_STREQ(text, "abc xyz @[`{ 019 \xc3\x84");
}

TEST(StrTolower, NullIsIgnored)
{
    str_tolower(nullptr);
}

TEST(StrdupLower, CopiesAndLeavesTheOriginal)
{
    const char original[] = "Box@Example.COM";
    const OwnedText copy(strdup_lower(original));

    EXPECT_STREQ(copy.get(), "box@example.com");
    EXPECT_STREQ(original, "Box@Example.COM");
}

TEST(StrdupLower, NullGivesNull)
{
    const LogCapture log;

    EXPECT_EQ(strdup_lower(nullptr), nullptr);
}

TEST(StrdupLower, RunningOutOfMemoryIsLoggedAndGivesNull)
{
    LogCapture log;

    const char *copy = without_memory(1, [&] { return strdup_lower("Text"); });
    EXPECT_EQ(copy, nullptr);
    EXPECT_EQ(log.take_one(), "3 System error: Cannot allocate memory\n");
}

} // namespace

} // namespace kolmo::testing
