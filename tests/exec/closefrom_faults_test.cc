/* Closing descriptors, with a made-up directory of them: what is closed in which order. */
#include "exec/closefrom.h"

#include <cerrno>
#include <string>
#include <vector>

#include "tests/exec/exec_support.h"
#include "tests/exec/process_faults.h"

namespace kolmo::testing
{

namespace
{

using ClosefromFaults = ExecTest;

using Names = std::vector<std::string>;

constexpr int lowest = 900;

/* A table of the size 904: the number at the limit is included. */
const std::string whole_table = "904 903 902 901 900";

std::string closed(const std::optional<Names> &names, int table_size = 904, int end_error = 0)
{
    const FakeDescriptors fake(names, table_size, end_error);

    closefrom(lowest);
    return fake.closed();
}

/* A directory of `count` entries: its own and otherwise standard input, so that nothing is to be closed. */
Names entries(std::size_t count)
{
    Names names(count, "0");

    names[0] = "*";
    return names;
}

TEST_F(ClosefromFaults, ListedDescriptorsAreClosedAndTheTableIsNot)
{
    EXPECT_EQ(closed(Names{".", "..", "0", "1", "899", "900", "*", "907", "905"}, 4096), "900 907 905");
}

TEST_F(ClosefromFaults, DirectoryThatCannotBeOpenedMeansTheWholeTable)
{
    EXPECT_EQ(closed(std::nullopt), whole_table);
}

TEST_F(ClosefromFaults, DirectoryThatDoesNotListItselfIsNotTrusted)
{
    EXPECT_EQ(closed(Names{"0", "903"}), "903 " + whole_table);
}

TEST_F(ClosefromFaults, FailedReadMeansTheWholeTableAsWell)
{
    EXPECT_EQ(closed(Names{"*", "903"}), "903");
    EXPECT_EQ(closed(Names{"*", "903"}, 904, EIO), "903 " + whole_table);
}

TEST_F(ClosefromFaults, NameThatIsNoPlainNumberMeansTheWholeTableAsWell)
{
    for (const char *name : {"0903", "00", "-0", "902x", "x", "", "-902", "+902", " 902", "902 ", "0x38",
                             "2147483648", "4294968198", "99999999999999999999"}) {
        EXPECT_EQ(closed(Names{"*", "903", name, "902"}), "903 " + whole_table) << '\'' << name << '\'';
    }
}

TEST_F(ClosefromFaults, NumberBeyondTheTableMeansTheWholeTableAsWell)
{
    EXPECT_EQ(closed(Names{"*", "902", "903"}), "902 903");
    EXPECT_EQ(closed(Names{"*", "902", "904", "903"}), "902 " + whole_table);
    EXPECT_EQ(closed(Names{"*", "902", "2147483647", "903"}), "902 " + whole_table);
}

TEST_F(ClosefromFaults, BudgetIsAHundredEntriesForASmallTable)
{
    EXPECT_EQ(closed(entries(98), 904), "");
    EXPECT_NE(closed(entries(102), 904), "");
}

TEST_F(ClosefromFaults, BudgetIsATenthOfALargeTable)
{
    EXPECT_EQ(closed(entries(98), 1000), "");
    EXPECT_NE(closed(entries(102), 1000), "");
    EXPECT_EQ(closed(entries(298), 3000), "");
    EXPECT_NE(closed(entries(302), 3000), "");
}

TEST_F(ClosefromFaults, ErrnoIsKeptThroughTheWholeTable)
{
    const FakeDescriptors fake(std::nullopt, 904);

    errno = EACCES;
    closefrom(lowest);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(fake.closed(), whole_table);
}

} // namespace

} // namespace kolmo::testing
