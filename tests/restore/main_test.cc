/*
 * What main does before the run: the program's own object file, with the run and SQLite's configuration
 * replaced.  The C library starts the test's main in its place.
 */
#include <csignal>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <sqlite3.h>

extern "C" int __real_main(int argc, char **argv);

namespace
{

using Calls = std::vector<std::string>;

Calls calls;

/* While it lives, the test's own standard streams are put aside. */
class StreamsAside
{
public:
    StreamsAside()
    {
        for (int fd = 0; fd < 3; fd++)
            kept_[fd] = fcntl(fd, F_DUPFD_CLOEXEC, 100);
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

    calls.clear();
    return __real_main(1, argv);
}

} // namespace

extern "C" int __wrap_main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

extern "C" int __wrap_sqlite3_config(int option, ...)
{
    calls.push_back("config " + std::to_string(option));
    return SQLITE_OK;
}

/* kolmo::rebuild_responders */
extern "C" int __wrap__ZN5kolmo18rebuild_respondersEPKc(const char *program)
{
    struct sigaction action;

    (void)sigaction(SIGCHLD, nullptr, &action);
    calls.push_back(std::string("run ") + program + (action.sa_handler == SIG_DFL ? ", waits" : ", ignores") +
                    (fcntl(0, F_GETFD) >= 0 && fcntl(1, F_GETFD) >= 0 && fcntl(2, F_GETFD) >= 0
                         ? ", streams"
                         : ", no streams"));
    return 7;
}

TEST(Main, ConfiguresSqliteForOneThreadWithoutStatisticsBeforeTheRun)
{
    EXPECT_EQ(run_main(), 7);
    EXPECT_EQ(calls,
              (Calls{"config " + std::to_string(SQLITE_CONFIG_SINGLETHREAD),
                     "config " + std::to_string(SQLITE_CONFIG_MEMSTATUS), "run rebuild, waits, streams"}));
}

TEST(Main, WaitsForChildrenAfterAParentThatDidNot)
{
    (void)std::signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(run_main(), 7);
    EXPECT_EQ(calls.back(), "run rebuild, waits, streams");
}

TEST(Main, FillsStandardStreamsThatWereClosedAndLeavesNothingElseOpen)
{
    int next;
    {
        const StreamsAside aside;
        const int before = open("/dev/null", O_RDONLY);

        (void)close(0);
        (void)close(2);
        EXPECT_EQ(run_main(), 7);
        next = open("/dev/null", O_RDONLY);
        next = next == before + 1 ? 0 : next;
        (void)close(before + 1);
        (void)close(before);
    }
    EXPECT_EQ(calls.back(), "run rebuild, waits, streams");
    EXPECT_EQ(next, 0) << "a descriptor was left open";
}
