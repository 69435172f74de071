/*
 * Closing descriptors: real ones, each case in a process of its own; and, to see what is closed in which
 * order, those of a made-up directory.
 */
#include "exec/closefrom.h"

#include <cerrno>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>

#include "tests/exec/exec_support.h"
#include "tests/exec/process_faults.h"

namespace kolmo::testing
{

namespace
{

using Closefrom = ExecTest;
using ClosefromDirectory = ExecTest;
using Ranges = std::vector<std::pair<int, int>>;

void limit_descriptors(rlim_t limit)
{
    rlimit both = {};

    (void)getrlimit(RLIMIT_NOFILE, &both);
    both.rlim_cur = limit;
    (void)setrlimit(RLIMIT_NOFILE, &both);
}

/* What is open after closefrom(lowest) in a process that had 0 to 2 open, and these ranges. */
std::string left_open(int lowest, const Ranges &ranges, rlim_t limit)
{
    return in_child([&] {
        closefrom(3); /* what the test program was started with */
        limit_descriptors(limit);
        for (const auto &[first, last] : ranges)
            fill_descriptors(first, last);
        closefrom(lowest);
        return open_descriptors();
    });
}

TEST_F(Closefrom, EverythingFromTheLowestUpwardIsClosedAndNothingBelow)
{
    const struct {
        int lowest;
        Ranges ranges;
        rlim_t limit;
        const char *left;
    } rows[] = {
        {3, {{3, 3}, {7, 7}, {40, 40}}, 4096, "0 1 2"},
        {8, {{3, 3}, {7, 7}, {8, 8}, {40, 40}}, 4096, "0 1 2 3 7"},
        {3, {}, 4096, "0 1 2"},
        {0, {{3, 5}}, 4096, ""},
        {-5, {{3, 5}}, 4096, ""},
        {3, {{3, 300}}, 4096, "0 1 2"},  /* within the budget of entries */
        {3, {{3, 1002}}, 1024, "0 1 2"}, /* beyond a tenth of 1024 */
        {3, {{3, 400}}, 500, "0 1 2"},   /* beyond a hundred */
    };

    for (const auto &row : rows)
        EXPECT_EQ(left_open(row.lowest, row.ranges, row.limit), row.left) << row.lowest;
}

TEST_F(Closefrom, KeepsErrno)
{
    EXPECT_EQ(in_child([] {
                  errno = EACCES;
                  closefrom(3);
                  return std::to_string(errno);
              }),
              "13");
}

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

TEST_F(ClosefromDirectory, ListedDescriptorsAreClosedAndTheTableIsNot)
{
    EXPECT_EQ(closed(Names{".", "..", "0", "1", "899", "900", "*", "907", "905"}, 4096), "900 907 905");
    EXPECT_EQ(closed(Names{"*", "902", "903"}), "902 903");
}

TEST_F(ClosefromDirectory, DirectoryThatCannotBeTrustedMeansTheWholeTableAsWell)
{
    EXPECT_EQ(closed(std::nullopt), whole_table) << "it cannot be opened";
    EXPECT_EQ(closed(Names{"0", "903"}), "903 " + whole_table) << "it does not list itself";
    EXPECT_EQ(closed(Names{"*", "903"}, 904, EIO), "903 " + whole_table) << "it cannot be read to its end";
    for (const char *number : {"904", "2147483647"})
        EXPECT_EQ(closed(Names{"*", "902", number, "903"}), "902 " + whole_table) << "beyond the table";
}

TEST_F(ClosefromDirectory, NameThatIsNoPlainNumberMeansTheWholeTableAsWell)
{
    for (const char *name : {"0903", "00", "-0", "902x", "x", "", "-902", "+902", " 902", "902 ", "0x38",
                             "2147483648", "4294968198", "99999999999999999999"}) {
        EXPECT_EQ(closed(Names{"*", "903", name, "902"}), "903 " + whole_table) << '\'' << name << '\'';
    }
}

TEST_F(ClosefromDirectory, BudgetIsATenthOfTheTableAndAtLeastAHundredEntries)
{
    const struct {
        int table_size;
        std::size_t budget;
    } rows[] = {{904, 100}, {999, 100}, {1000, 100}, {3000, 300}};

    for (const auto &row : rows) {
        EXPECT_EQ(closed(entries(row.budget - 2), row.table_size), "") << row.table_size;
        EXPECT_NE(closed(entries(row.budget + 2), row.table_size), "") << row.table_size;
    }
}

TEST_F(ClosefromDirectory, ErrnoIsKeptThroughTheWholeTable)
{
    const FakeDescriptors fake(std::nullopt, 904);

    errno = EACCES;
    closefrom(lowest);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(fake.closed(), whole_table);
}

} // namespace

} // namespace kolmo::testing
