#include "verify/printable.h"

#include <gtest/gtest.h>

namespace kolmo
{

namespace
{

struct PrintableRow {
    std::string_view text;
    const char *printed;
};

const PrintableRow printable_rows[] = {
    {"plain", "plain"},
    {"\xc3\xbc \xe2\x82\xac \xf0\x9f\x8f\x96", "\xc3\xbc \xe2\x82\xac \xf0\x9f\x8f\x96"},
    {"a\nb\r\tc", "a\\nb\\r\\tc"},
    {"\\", "\\\\"},
    {"\x1b[0m", "\\x1b[0m"},
    {"\x7f", "\\x7f"},
    {"\xc2\x80\xc2\x9f\xc2\xa0", "\\x80\\x9f\xc2\xa0"},
    {"\xe2\x80\xae\xe2\x81\xa6", "\\u202e\\u2066"},
    {"\xf3\xa0\x80\x81", "\\u0e0001"},
    {"\xff\xc3", "\\xff\\xc3"},
    {"\xc0\xaf", "\\xc0\\xaf"},                   /* overlong */
    {"\xed\xa0\x80", "\\xed\\xa0\\x80"},          /* a surrogate */
    {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"}, /* beyond Unicode */
    {"\xe2\x82", "\\xe2\\x82"},
    {std::string_view("\0", 1), "\\x00"},
};

TEST(Printable, NothingThatIsLeftCanSteerATerminal)
{
    for (const PrintableRow &row : printable_rows)
        EXPECT_EQ(printable(row.text), row.printed);
}

TEST(Printable, ColumnsAreCountedAsATerminalDoes)
{
    EXPECT_EQ(columns_of("abc"), 3u);
    EXPECT_EQ(columns_of("\xc3\xbc"), 1u);
    EXPECT_EQ(columns_of("\xe4\xb8\xad"), 2u);
    EXPECT_EQ(columns_of("e\xcc\x81"), 1u);
}

TEST(Printable, TextIsCutBetweenCharacters)
{
    EXPECT_EQ(cut_columns("abcdef", 6), "abcdef");
    EXPECT_EQ(cut_columns("abcdefg", 6), "abc...");
    EXPECT_EQ(cut_columns("\xc3\xbc\xc3\xbc\xc3\xbc\xc3\xbc\xc3\xbc", 4), "\xc3\xbc...");
    EXPECT_EQ(cut_columns("\xe4\xb8\xad\xe4\xb8\xad\xe4\xb8\xad", 5), "\xe4\xb8\xad...");
}

TEST(Printable, LongTextsAreCutAroundTheirDifference)
{
    const std::string head(60, 'a');
    const TwoTexts cut = cut_around_difference(head + "one" + head, head + "two" + head, 40);

    EXPECT_EQ(cut.first, "...aaaaaaaaaaaaoneaaaaaaaaaaaaaaaaaaa...");
    EXPECT_EQ(cut.second, "...aaaaaaaaaaaatwoaaaaaaaaaaaaaaaaaaa...");

    const TwoTexts shorter = cut_around_difference(head, head + "b", 40);

    EXPECT_EQ(shorter.first, "...aaaaaaaaaaaa");
    EXPECT_EQ(shorter.second, "...aaaaaaaaaaaab");
    EXPECT_EQ(cut_around_difference("one", "two", 40).first, "one");
    EXPECT_EQ(cut_around_difference(head + "a", head + "b", 61).first, head + "a");
    EXPECT_EQ(cut_around_difference(head, head + head, 100).first,
              "...aaaaaaaaaaaa"); /* the other does not fit */
}

TEST(Printable, LinesAreBrokenAtBlanks)
{
    EXPECT_EQ(wrap("one two three", 7), (std::vector<std::string>{"one two", "three"}));
    EXPECT_EQ(wrap("abcdefghij k", 4), (std::vector<std::string>{"abcdefghij", "k"}));
    EXPECT_EQ(wrap("", 4), std::vector<std::string>{});
}

} // namespace

} // namespace kolmo
