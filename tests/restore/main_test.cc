/*
 * What main does before the run: the program's own object file, over a run that only looks around.  The C
 * library starts the test's main in its place.
 */
#include <csignal>
#include <string>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "restore/program_flow.h"

extern "C" int __real_main(int argc, char **argv);

namespace
{

std::string seen;

/* Whether a connection has neither a lock nor its memory counted. */
bool sqlite_is_bare()
{
    sqlite3 *connection = nullptr;
    const bool is_bare = sqlite3_open(":memory:", &connection) == SQLITE_OK &&
                         sqlite3_db_mutex(connection) == nullptr && sqlite3_memory_used() == 0;

    (void)sqlite3_close(connection);
    return is_bare;
}

/* While it lives, the standard streams whose bits are set are closed. */
class StreamsAside
{
public:
    explicit StreamsAside(int bits)
    {
        for (int fd = 0; fd < 3; fd++) {
            kept_[fd] = fcntl(fd, F_DUPFD_CLOEXEC, 100);
            if ((bits & (1 << fd)) != 0)
                (void)close(fd);
        }
    }
    ~StreamsAside()
    {
        for (int fd = 0; fd < 3; fd++) {
            (void)dup2(kept_[fd], fd);
            (void)close(kept_[fd]);
        }
    }
    StreamsAside(const StreamsAside &) = delete;
    StreamsAside &operator=(const StreamsAside &) = delete;

private:
    int kept_[3];
};

int run_main()
{
    char name[] = "rebuild";
    char *argv[] = {name, nullptr};

    seen.clear();
    return __real_main(1, argv);
}

/* The lowest descriptor that is free. */
int next_descriptor()
{
    const int fd = open("/dev/null", O_RDONLY);

    (void)close(fd);
    return fd;
}

} // namespace

extern "C" int __wrap_main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

/* In place of the program's own. */
int kolmo::rebuild_responders(const char *program)
{
    struct sigaction action;

    (void)sigaction(SIGCHLD, nullptr, &action);
    seen = std::string(program) + (action.sa_handler == SIG_DFL ? ", waits" : ", ignores") +
           (sqlite_is_bare() ? ", bare SQLite" : ", SQLite with locks or counters") + ", next descriptor " +
           std::to_string(next_descriptor());
    return 7;
}

TEST(Main, RunStartsWithSqliteForOneThreadAndWithoutStatisticsAndItsStatusIsTheRuns)
{
    const int next = next_descriptor();

    EXPECT_EQ(run_main(), 7);
    EXPECT_EQ(seen, "rebuild, waits, bare SQLite, next descriptor " + std::to_string(next));
}

TEST(Main, WithoutAFreeDescriptorTheRunStartsAllTheSame)
{
    rlimit kept;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &kept), 0);
    const rlimit full = {static_cast<rlim_t>(next_descriptor()), kept.rlim_max};

    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &full), 0);
    const int status = run_main();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &kept), 0);
    EXPECT_EQ(status, 7);
    EXPECT_EQ(seen, "rebuild, waits, bare SQLite, next descriptor -1");
}

TEST(Main, AfterAParentThatIgnoredItsChildrenTheRunWaitsForThem)
{
    (void)std::signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(run_main(), 7);
    EXPECT_EQ(seen.find("rebuild, waits"), 0U) << seen;
}

TEST(Main, StandardStreamsThatWereClosedAreFilledAndNothingElseIsLeftOpen)
{
    const int next = next_descriptor();

    for (int closed = 1; closed < 8; closed++) {
        {
            const StreamsAside aside(closed);

            EXPECT_EQ(run_main(), 7);
        }
        EXPECT_EQ(seen, "rebuild, waits, bare SQLite, next descriptor " + std::to_string(next))
            << "closed streams, as bits: " << closed;
    }
}
