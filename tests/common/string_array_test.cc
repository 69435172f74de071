#include "common/string_array.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <malloc.h>

#include "tests/support/alloc_faults.h"
#include "tests/support/log_capture.h"

namespace kolmo::testing
{

namespace
{

using Texts = std::vector<std::string>;

const std::string out_of_memory = "3 System error: Cannot allocate memory\n";

Texts texts_of(const OwnedStringArray &array)
{
    Texts texts;

    for (std::size_t i = 0; array != nullptr && array[i] != nullptr; i++)
        texts.emplace_back(array[i]);
    return texts;
}

struct SplitRow {
    const char *text;
    const char *delimiters;
    Texts tokens;
};

void expect_splits(const std::vector<SplitRow> &rows)
{
    for (const SplitRow &row : rows)
        EXPECT_EQ(texts_of(OwnedStringArray(string_array_split(row.text, row.delimiters))), row.tokens)
            << '"' << row.text << '"';
}

TEST(SplitText, OneTokenPerRunBetweenDelimiters)
{
    expect_splits({{"a", ",", {"a"}}, {"a,b", ",", {"a", "b"}}, {"one two", ",", {"one two"}}});
}

TEST(SplitText, LeadingAndRepeatedDelimitersGiveNoEmptyTokens)
{
    expect_splits({{",,a,,b", ",", {"a", "b"}}, {"a,,,b", ",", {"a", "b"}}});
}

TEST(SplitText, TrailingDelimiterGivesAnEmptyLastToken)
{
    expect_splits({{"a,", ",", {"a", ""}}, {"a,b,", ",", {"a", "b", ""}}, {"a,,", ",", {"a", ""}}});
}

TEST(SplitText, TextWithoutTokensGivesOneEmptyText)
{
    expect_splits({{"", ",", {""}}, {",", ",", {""}}, {",,", ",", {""}}});
}

TEST(SplitText, EveryCharacterOfTheSetDelimits)
{
    expect_splits({{"a;b c,;d", ",; ", {"a", "b", "c", "d"}}, {"a,b", "", {"a,b"}}});
}

TEST(SplitText, TextIsLeftAlone)
{
    const std::string text = "a,b";
    const OwnedStringArray array(string_array_split(text.c_str(), ","));

    EXPECT_EQ(text, "a,b");
    EXPECT_EQ(texts_of(array), (Texts{"a", "b"}));
}

/* Calls that need memory: the copy of the text, then room and copy for each of two tokens. */
TEST(SplitText, RunningOutOfMemoryIsLoggedAtEveryPointAndLeaksNothing)
{
    const std::vector<std::string> at_the_text = {out_of_memory};
    const std::vector<std::string> at_a_token = {out_of_memory, "3 Unable to add string into array"};
    LogCapture log;

    for (int nth = 1; nth <= 5; nth++) {
        StringArray array = without_memory(nth, [&] { return string_array_split("a,b", ","); });
        EXPECT_EQ(array, nullptr) << nth;
        EXPECT_EQ(log.take(), nth == 1 ? at_the_text : at_a_token) << nth;
        string_array_free(array);
    }
}

TEST(AddText, NullStartsAnArray)
{
    const OwnedStringArray array(string_array_add(nullptr, "first"));

    EXPECT_EQ(texts_of(array), Texts{"first"});
}

TEST(AddText, ArrayWithoutEntriesIsFilled)
{
    auto **empty = static_cast<StringArray>(std::calloc(1, sizeof(char *)));
    const OwnedStringArray array(string_array_add(empty, "first"));

    EXPECT_EQ(texts_of(array), Texts{"first"});
}

TEST(AddText, EntriesAreCopiesInOrder)
{
    char text[] = "1";
    OwnedStringArray array;

    for (; text[0] <= '9'; text[0]++)
        array.reset(string_array_add(array.release(), text));
    EXPECT_EQ(texts_of(array), (Texts{"1", "2", "3", "4", "5", "6", "7", "8", "9"}));
}

TEST(AddText, ArrayHasRoomForItsOldEntriesAndThreePointers)
{
    OwnedStringArray array;

    for (std::size_t count = 0; count < 4; count++) {
        array.reset(string_array_add(array.release(), "x"));
        EXPECT_GE(malloc_usable_size(static_cast<void *>(array.get())), (count + 3) * sizeof(char *));
    }
}

TEST(AddText, ArrayThatCannotGrowStaysTheCallers)
{
    LogCapture log;
    const OwnedStringArray array(string_array_add(nullptr, "kept"));

    StringArray grown = without_memory(1, [&] { return string_array_add(array.get(), "more"); });
    EXPECT_EQ(grown, nullptr);
    EXPECT_EQ(texts_of(array), Texts{"kept"});
    EXPECT_EQ(log.take_one(), out_of_memory);
}

TEST(AddText, FailedCopyFreesTheArrayWithItsTexts)
{
    LogCapture log;
    StringArray array = string_array_add(nullptr, "lost");

    {
        const AllocFaults faults(2);
        array = string_array_add(array, "more");
    }
    EXPECT_EQ(array, nullptr); /* the leak checker counts the rest */
    EXPECT_EQ(log.take_one(), out_of_memory);
}

TEST(FreeTexts, NullIsAccepted)
{
    string_array_free(nullptr);
}

} // namespace

} // namespace kolmo::testing
