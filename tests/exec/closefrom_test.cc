/* Closing descriptors, with real ones, each case in a process of its own. */
#include "exec/closefrom.h"

#include <cerrno>
#include <string>

#include <fcntl.h>
#include <sys/resource.h>

#include "tests/exec/exec_support.h"

namespace kolmo::testing
{

namespace
{

using Closefrom = ExecTest;

void limit_descriptors(rlim_t limit)
{
    rlimit both = {};

    (void)getrlimit(RLIMIT_NOFILE, &both);
    both.rlim_cur = limit;
    (void)setrlimit(RLIMIT_NOFILE, &both);
}

/* What is open after closefrom(lowest) in a process that had 0 to 2 open, and these ranges. */
std::string left_open(int lowest, std::initializer_list<std::pair<int, int>> ranges, rlim_t limit = 4096)
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

TEST_F(Closefrom, ClosesEverythingAboveTheStreams)
{
    EXPECT_EQ(left_open(3, {{3, 3}, {7, 7}, {40, 40}}), "0 1 2");
}

TEST_F(Closefrom, LeavesWhatIsBelow)
{
    EXPECT_EQ(left_open(8, {{3, 3}, {7, 7}, {8, 8}, {40, 40}}), "0 1 2 3 7");
}

TEST_F(Closefrom, NothingToCloseIsNoTrouble)
{
    EXPECT_EQ(left_open(3, {}), "0 1 2");
}

TEST_F(Closefrom, ClosesMoreThanTheBudgetOfEntries)
{
    EXPECT_EQ(left_open(3, {{3, 1002}}, 1024), "0 1 2"); /* a tenth of 1024 entries */
    EXPECT_EQ(left_open(3, {{3, 400}}, 500), "0 1 2");   /* a hundred entries */
}

TEST_F(Closefrom, ClosesAThousandWithinTheBudget)
{
    EXPECT_EQ(left_open(3, {{3, 300}}, 4096), "0 1 2");
}

TEST_F(Closefrom, ZeroAndLessMeanEverything)
{
    EXPECT_EQ(left_open(0, {{3, 5}}), "");
    EXPECT_EQ(left_open(-5, {{3, 5}}), "");
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

} // namespace

} // namespace kolmo::testing
