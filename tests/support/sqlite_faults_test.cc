/*
 * The seam is itself held: a fault that never fires would leave every test green that relies on it.
 */
#include "tests/support/sqlite_faults.h"

#include <cerrno>
#include <chrono>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

namespace kolmo::testing
{

namespace
{

using Calls = std::vector<std::string>;

sqlite3 *open_in_memory()
{
    sqlite3 *connection = nullptr;

    EXPECT_EQ(sqlite3_open(":memory:", &connection), SQLITE_OK);
    return connection;
}

/* Such a fault, without the call that it waits for. */
void arm_and_leave(void (*arm)(SqliteFaults *))
{
    SqliteFaults faults;

    arm(&faults);
}

TEST(SqliteFaultsTest, FaultThatIsNotReachedFailsTheTest)
{
    EXPECT_NONFATAL_FAILURE(arm_and_leave([](SqliteFaults *faults) { faults->fail_call(1); }),
                            "the call that had to fail never came");
    EXPECT_NONFATAL_FAILURE(
        arm_and_leave([](SqliteFaults *faults) { faults->fail_call(SqliteCall::bind, 1); }),
        "the call that had to fail never came");
    EXPECT_NONFATAL_FAILURE(arm_and_leave([](SqliteFaults *faults) { faults->fail_pause(1); }),
                            "the pause that had to fail never came");
    EXPECT_NONFATAL_FAILURE(arm_and_leave([](SqliteFaults *faults) { faults->at_pause(1, [] {}); }),
                            "the pause in which something had to happen never came");
    EXPECT_NONFATAL_FAILURE(arm_and_leave([](SqliteFaults *faults) { faults->be_busy(SqliteCall::step, 1); }),
                            "the call that had to be busy never came");
}

TEST(SqliteFaultsTest, FailingCallIsNotMadeAndTheNextOneIs)
{
    SqliteFaults faults;
    sqlite3 *const connection = open_in_memory();

    faults.fail_call(SqliteCall::exec, 2, SQLITE_FULL);
    EXPECT_EQ(sqlite3_exec(connection, "CREATE TABLE a(x)", nullptr, nullptr, nullptr), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(connection, "CREATE TABLE b(x)", nullptr, nullptr, nullptr), SQLITE_FULL);
    EXPECT_EQ(faults.failed_call(), "exec CREATE TABLE b(x)");
    EXPECT_EQ(sqlite3_exec(connection, "CREATE TABLE b(x)", nullptr, nullptr, nullptr), SQLITE_OK);
    EXPECT_EQ(faults.calls_made(), 4);
}

TEST(SqliteFaultsTest, LeftOverStatementsAndConnectionsAreKnown)
{
    SqliteFaults faults;
    sqlite3 *const connection = open_in_memory();
    sqlite3_stmt *statement = nullptr;

    EXPECT_EQ(sqlite3_prepare_v2(connection, "SELECT 1", -1, &statement, nullptr), SQLITE_OK);
    EXPECT_EQ(sqlite3_close(connection), SQLITE_BUSY);
    EXPECT_EQ(faults.open_statements(), Calls{"SELECT 1"});
    EXPECT_EQ(faults.open_connections(), std::vector<sqlite3 *>{connection});
    EXPECT_FALSE(faults.is_closed(connection));
}

TEST(SqliteFaultsTest, TextBoundInAnotherWayIsToldApart)
{
    SqliteFaults faults;
    sqlite3_stmt *statement = nullptr;

    EXPECT_EQ(sqlite3_prepare_v2(open_in_memory(), "SELECT ?", -1, &statement, nullptr), SQLITE_OK);
    (void)sqlite3_bind_text(statement, 1, "text", -1, SQLITE_STATIC);
    EXPECT_EQ(faults.calls().back(), "bind 1 'text' length -1");
    (void)sqlite3_bind_text(statement, 1, "text", 3, SQLITE_TRANSIENT);
    EXPECT_EQ(faults.calls().back(), "bind 1 'text' length 3 copied");
    (void)sqlite3_bind_text(statement, 1, nullptr, 0, SQLITE_STATIC);
    EXPECT_EQ(faults.calls().back(), "bind 1 NULL");
}

TEST(SqliteFaultsTest, AsideNothingIsRecordedOrMadeToFail)
{
    SqliteFaults faults;

    faults.fail_call(1);
    {
        const SqliteFaults::Aside aside;

        EXPECT_EQ(sqlite3_close(open_in_memory()), SQLITE_OK);
    }
    EXPECT_EQ(faults.calls(), Calls{});

    sqlite3 *connection = nullptr;

    EXPECT_EQ(sqlite3_open(":memory:", &connection), SQLITE_ERROR);
}

TEST(SqliteFaultsTest, PausesAreOnlySleptOnRequest)
{
    const timespec long_pause = {100, 0};
    const timespec short_pause = {0, 2'000'000};
    SqliteFaults faults;

    EXPECT_EQ(nanosleep(&long_pause, nullptr), 0);
    faults.sleep_really();

    const auto start = std::chrono::steady_clock::now();

    EXPECT_EQ(nanosleep(&short_pause, nullptr), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2));
    EXPECT_EQ(faults.pauses(), (std::vector<long>{100'000'000'000, 2'000'000}));
}

TEST(SqliteFaultsTest, InvalidPauseFailsAsItReallyDoes)
{
    const timespec invalid = {0, 1'000'000'000};

    for (const bool slept : {false, true}) {
        SqliteFaults faults;

        if (slept)
            faults.sleep_really();
        errno = 0;
        EXPECT_EQ(nanosleep(&invalid, nullptr), -1);
        EXPECT_EQ(errno, EINVAL);
    }
}

} // namespace

} // namespace kolmo::testing
