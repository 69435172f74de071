#include "responder_store/kit/busy_retry.h"

#include <chrono>
#include <numeric>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"
#include "tests/support/sqlite_faults.h"

namespace kolmo::testing
{

namespace
{

using Calls = std::vector<std::string>;

/* A connection to a store in memory. */
StoreConnection open_in_memory()
{
    StoreConnection connection;

    EXPECT_EQ(open_store(&connection, ":memory:", OpenMode::read_write), Ending::done);
    return connection;
}

class BusyRetry : public ::testing::Test
{
protected:
    LogCapture log; /* nothing here logs */
    SqliteFaults faults;
};

using BusyPause = BusyRetry;
using RetryWhileBusy = BusyRetry;
using CloseWithRetry = BusyRetry;

TEST_F(BusyPause, ZeroIsNotSlept)
{
    EXPECT_EQ(busy_pause(0), 0);
    EXPECT_EQ(faults.calls(), Calls{});
}

TEST_F(BusyPause, SleepsTheNanosecondsGiven)
{
    EXPECT_EQ(busy_pause(1), 0);
    EXPECT_EQ(faults.pauses(), std::vector<long>{1});
}

TEST_F(BusyPause, InterruptedPauseFailsAndIsNotTakenUpAgain)
{
    faults.fail_pause(1);
    EXPECT_EQ(busy_pause(10'000), -1);
    EXPECT_EQ(faults.pauses(), std::vector<long>{10'000});
}

TEST_F(BusyPause, LongestPauseIsJustBelowOneSecond)
{
    EXPECT_EQ(busy_pause(999'999'999), 0);
    EXPECT_EQ(busy_pause(1'000'000'000), -1);
}

TEST(BusyPauseOnTheClock, TakesItsTime)
{
    const auto start = std::chrono::steady_clock::now();

    EXPECT_EQ(busy_pause(2'000'000), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2));
}

TEST_F(RetryWhileBusy, FirstAttemptIsFollowedByNoPause)
{
    int rc = -1;

    EXPECT_EQ(retry_while_busy(&rc, [] { return SQLITE_OK; }), Ending::done);
    EXPECT_EQ(rc, SQLITE_OK);
    EXPECT_EQ(faults.pauses(), std::vector<long>{});
}

TEST_F(RetryWhileBusy, BusyTwiceIsTriedThreeTimesWithPausesAfterTheSecondAndTheThird)
{
    int attempts = 0;
    int rc = -1;
    std::vector<std::size_t> pauses_before;

    EXPECT_EQ(retry_while_busy(&rc,
                               [&] {
                                   pauses_before.push_back(faults.pauses().size());
                                   return ++attempts < 3 ? SQLITE_BUSY : SQLITE_CONSTRAINT;
                               }),
              Ending::done);
    EXPECT_EQ(rc, SQLITE_CONSTRAINT);
    EXPECT_EQ(pauses_before, (std::vector<std::size_t>{0, 0, 1}));
    EXPECT_EQ(faults.pauses(), (std::vector<long>{10'000, 20'000}));
}

TEST_F(RetryWhileBusy, OtherCodesOfTheBusyKindAreNotTriedAgain)
{
    for (const int code : {SQLITE_LOCKED, SQLITE_BUSY_SNAPSHOT, SQLITE_PROTOCOL}) {
        int attempts = 0;
        int rc = SQLITE_OK;

        EXPECT_EQ(retry_while_busy(&rc,
                                   [&] {
                                       attempts++;
                                       return code;
                                   }),
                  Ending::done);
        EXPECT_EQ(rc, code);
        EXPECT_EQ(attempts, 1);
    }
}

TEST_F(RetryWhileBusy, FailedPauseEndsItWithTheCodeOfTheAttemptBeforeIt)
{
    int attempts = 0;
    int rc = -1;

    faults.fail_pause(2);
    EXPECT_EQ(retry_while_busy(&rc,
                               [&] {
                                   attempts++;
                                   return attempts < 3 ? SQLITE_BUSY : SQLITE_DONE;
                               }),
              Ending::abandoned);
    EXPECT_EQ(attempts, 3);
    EXPECT_EQ(rc, SQLITE_DONE);
}

TEST_F(RetryWhileBusy, LockThatNeverGoesEndsAfter100001AttemptsWhenThePauseIsAWholeSecond)
{
    std::vector<long> expected(100'000);
    long attempts = 0;
    int rc = -1;

    std::iota(expected.begin(), expected.end(), 1L);
    for (long &pause : expected)
        pause *= 10'000;
    EXPECT_EQ(retry_while_busy(&rc,
                               [&] {
                                   attempts++;
                                   return SQLITE_BUSY;
                               }),
              Ending::abandoned);
    EXPECT_EQ(attempts, 100'001);
    EXPECT_EQ(rc, SQLITE_BUSY);
    EXPECT_EQ(faults.pauses(), expected);
}

TEST_F(CloseWithRetry, BusyTwiceIsTriedThreeTimesWithGrowingPauses)
{
    StoreConnection connection = open_in_memory();

    faults.be_busy(SqliteCall::close, 2);
    EXPECT_EQ(close_with_retry(&connection), Ending::done);
    EXPECT_EQ(faults.calls(), (Calls{"open :memory:", "busy_timeout 50", "close", "close", "pause 10000",
                                     "close", "pause 20000"}));
    EXPECT_FALSE(connection.is_open());
}

/* The statement is the caller's own, the connection was never abandoned: the loop has to go its way. */
TEST_F(CloseWithRetry, UnfinalizedStatementKeepsItBusyUntilItIsFinalized)
{
    StoreConnection connection = open_in_memory();
    sqlite3_stmt *statement = nullptr;

    {
        const SqliteFaults::Aside aside;

        ASSERT_EQ(sqlite3_prepare_v2(connection.get(), "SELECT 1", -1, &statement, nullptr), SQLITE_OK);
    }
    faults.at_pause(3, [&] { EXPECT_EQ(sqlite3_finalize(statement), SQLITE_OK); });
    EXPECT_EQ(close_with_retry(&connection), Ending::done);
    EXPECT_EQ(faults.count("close"), 5);
    EXPECT_TRUE(faults.open_connections().empty());
}

TEST_F(CloseWithRetry, AnyOtherCodeEndsItAndIsNotExamined)
{
    StoreConnection connection = open_in_memory();

    faults.fail_call(SqliteCall::close, 1, SQLITE_IOERR);
    EXPECT_EQ(close_with_retry(&connection), Ending::done);
    EXPECT_FALSE(connection.is_open());
    EXPECT_EQ(faults.count("close"), 1);
}

TEST_F(CloseWithRetry, FailedPauseAfterABusyAttemptAbandonsTheConnection)
{
    StoreConnection connection = open_in_memory();

    faults.be_busy(SqliteCall::close, 2);
    faults.fail_pause(1);
    EXPECT_EQ(close_with_retry(&connection), Ending::abandoned);
    EXPECT_TRUE(connection.is_abandoned());
    EXPECT_FALSE(faults.is_closed(connection.get()));
    EXPECT_EQ(close_with_retry(&connection), Ending::abandoned);
    EXPECT_EQ(faults.count("close"), 2) << "not once more";
}

TEST_F(CloseWithRetry, FailedPauseAfterTheClosingForgetsTheConnection)
{
    StoreConnection connection = open_in_memory();
    sqlite3 *const handle = connection.get();

    faults.be_busy(SqliteCall::close, 1);
    faults.fail_pause(1);
    EXPECT_EQ(close_with_retry(&connection), Ending::abandoned);
    EXPECT_TRUE(faults.is_closed(handle));
    EXPECT_FALSE(connection.is_open());
}

TEST_F(CloseWithRetry, SecondCloseDoesNothing)
{
    StoreConnection connection = open_in_memory();

    EXPECT_EQ(close_with_retry(&connection), Ending::done);
    EXPECT_EQ(close_with_retry(&connection), Ending::done);
    EXPECT_EQ(faults.count("close"), 1);
}

TEST_F(CloseWithRetry, NoConnectionIsLeftAlone)
{
    EXPECT_EQ(close_with_retry(nullptr), Ending::done);
    EXPECT_EQ(faults.calls(), Calls{});
}

} // namespace

} // namespace kolmo::testing
