#include "common/standard_streams.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace kolmo
{

namespace
{

/* The first descriptor that is free once a process without some of the three has occupied them. */
[[noreturn]] void exit_with_first_free(unsigned int closed)
{
    (void)::close_range(STDERR_FILENO + 1, ~0U, 0);
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++)
        if ((closed >> fd & 1) != 0)
            (void)::close(fd);
    occupy_standard_streams();
    ::_exit(::open("/dev/null", O_RDONLY | O_CLOEXEC));
}

TEST(StandardStreams, AreOccupiedAllThreeAndNothingElseIs)
{
    for (unsigned int closed = 0; closed < 8; closed++)
        EXPECT_EXIT(exit_with_first_free(closed), ::testing::ExitedWithCode(3), "") << closed;
}

} // namespace

} // namespace kolmo
