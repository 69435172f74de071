#include "responder_store/kit/store_connection.h"

#include <string>
#include <utility>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/log_capture.h"
#include "tests/support/sqlite_faults.h"
#include "tests/support/temp_dir.h"

namespace kolmo::testing
{

namespace
{

using Calls = std::vector<std::string>;

class StoreConnectionTest : public ::testing::Test
{
protected:
    LogCapture log;
    TempDir folder;
    std::string path = folder.path("100% of 'it'.db");
    SqliteFaults faults;
};

using OpenStore = StoreConnectionTest;

TEST_F(StoreConnectionTest, NoConnectionHasAFixedDetail)
{
    const StoreConnection none;

    EXPECT_FALSE(none.is_open());
    EXPECT_EQ(none.get(), nullptr);
    EXPECT_STREQ(none.detail(), "general DB errror");
}

TEST_F(StoreConnectionTest, DetailIsWhatSqliteSaysOfTheLatestFailure)
{
    StoreConnection connection;

    ASSERT_EQ(open_store(&connection, path.c_str(), OpenMode::read_write), Ending::done);
    (void)sqlite3_exec(connection.get(), "DELETE FROM absent", nullptr, nullptr, nullptr);
    EXPECT_STREQ(connection.detail(), "no such table: absent");
}

TEST_F(StoreConnectionTest, EndOfItsScopeClosesOnceWithoutRetries)
{
    {
        StoreConnection connection;

        ASSERT_EQ(open_store(&connection, path.c_str(), OpenMode::read_write), Ending::done);
        faults.be_busy(SqliteCall::close, 1);
    }
    EXPECT_EQ(faults.count("close"), 1);
    EXPECT_TRUE(faults.pauses().empty());
}

TEST_F(StoreConnectionTest, MovedConnectionHasOneOwner)
{
    StoreConnection first;

    ASSERT_EQ(open_store(&first, path.c_str(), OpenMode::read_write), Ending::done);

    sqlite3 *const handle = first.get();
    const StoreConnection second(std::move(first));

    EXPECT_EQ(second.get(), handle);
    EXPECT_FALSE(first.is_open()); // NOLINT(bugprone-use-after-move): being empty is the contract
}

TEST_F(StoreConnectionTest, AssignmentClosesWhatWasThereAndLeavesTheSourceClosed)
{
    StoreConnection first;
    StoreConnection second;

    ASSERT_EQ(open_store(&first, path.c_str(), OpenMode::read_write), Ending::done);
    ASSERT_EQ(open_store(&second, path.c_str(), OpenMode::read_write), Ending::done);

    sqlite3 *const old = first.get();
    sqlite3 *const handle = second.get();

    second.abandon();
    first = std::move(second);
    EXPECT_TRUE(faults.is_closed(old));
    EXPECT_EQ(first.get(), handle);
    EXPECT_TRUE(first.is_abandoned());
    EXPECT_EQ(second.get(), nullptr); // NOLINT(bugprone-use-after-move): being closed is the contract
    EXPECT_FALSE(second.is_abandoned());
}

TEST_F(StoreConnectionTest, AbandonedConnectionIsLeftAlone)
{
    {
        StoreConnection connection;

        ASSERT_EQ(open_store(&connection, path.c_str(), OpenMode::read_write), Ending::done);
        connection.abandon();
        EXPECT_FALSE(connection.is_open());
        EXPECT_STREQ(connection.detail(), "general DB errror");
    }
    EXPECT_EQ(faults.count("close"), 0);
    EXPECT_EQ(faults.open_connections().size(), 1U);
}

TEST_F(StoreConnectionTest, ReleasedHandleIsTheCallers)
{
    {
        StoreConnection connection;

        ASSERT_EQ(open_store(&connection, path.c_str(), OpenMode::read_write), Ending::done);
        EXPECT_NE(connection.release(), nullptr);
        EXPECT_FALSE(connection.is_open());
    }
    EXPECT_EQ(faults.count("close"), 0);
    EXPECT_EQ(faults.open_connections().size(), 1U);
}

TEST_F(OpenStore, SetsABusyTimeoutOfFiftyMilliseconds)
{
    StoreConnection connection;

    EXPECT_EQ(open_store(&connection, path.c_str(), OpenMode::read_write), Ending::done);
    EXPECT_TRUE(connection.is_open());
    EXPECT_EQ(faults.calls(), (Calls{"open " + path, "busy_timeout 50"}));
}

TEST_F(OpenStore, BusyOpenIsAFailureLikeAnyOther)
{
    StoreConnection connection;

    faults.fail_call(1, SQLITE_BUSY);
    EXPECT_EQ(open_store(&connection, path.c_str(), OpenMode::read_write), Ending::failed);
    EXPECT_EQ(log.take_one(), "3 Unable to open database " + path + ": not an error");
    EXPECT_EQ(faults.calls(), (Calls{"open " + path, "close"}));
}

TEST_F(OpenStore, CreatesAMissingFileWhenItMayWrite)
{
    StoreConnection connection;

    ASSERT_EQ(open_store(&connection, path.c_str(), OpenMode::read_write), Ending::done);
    EXPECT_EQ(sqlite3_exec(connection.get(), "CREATE TABLE t(a)", nullptr, nullptr, nullptr), SQLITE_OK);
    EXPECT_EQ(access(path.c_str(), F_OK), 0);
}

TEST_F(OpenStore, ReadOnlyNeitherCreatesNorWrites)
{
    StoreConnection connection;

    EXPECT_EQ(open_store(&connection, path.c_str(), OpenMode::read_only), Ending::failed);
    EXPECT_EQ(log.take_one(),
              "3 Unable to open database(readonly) " + path + ": unable to open database file");
    EXPECT_NE(access(path.c_str(), F_OK), 0);

    (void)folder.write("100% of 'it'.db", "");
    EXPECT_EQ(open_store(&connection, path.c_str(), OpenMode::read_only), Ending::done);
    EXPECT_EQ(sqlite3_exec(connection.get(), "CREATE TABLE t(a)", nullptr, nullptr, nullptr),
              SQLITE_READONLY);
    EXPECT_EQ(faults.count("open"), 0);
    EXPECT_EQ(faults.count("open_v2 " + path + " 1"), 2) << "with SQLITE_OPEN_READONLY";
}

TEST_F(OpenStore, MissingFolderAndFolderAreReported)
{
    for (const std::string &bad : {folder.path("none/store.db"), folder.path()}) {
        StoreConnection connection;

        EXPECT_EQ(open_store(&connection, bad.c_str(), OpenMode::read_write), Ending::failed);
        EXPECT_EQ(log.take_one(), "3 Unable to open database " + bad + ": unable to open database file");
        EXPECT_FALSE(connection.is_open());
        EXPECT_EQ(faults.calls().back(), "close");
    }
    EXPECT_TRUE(faults.open_connections().empty());
}

TEST_F(OpenStore, FileThatIsNoDatabaseOpensWell)
{
    StoreConnection connection;

    (void)folder.write("garbage", std::string(4096, 'x'));
    EXPECT_EQ(open_store(&connection, folder.path("garbage").c_str(), OpenMode::read_write), Ending::done);
}

TEST_F(OpenStore, FailureWithoutAHandleHasTheFixedDetailAndClosesNothing)
{
    StoreConnection connection;

    faults.fail_call(1, SQLITE_NOMEM);
    faults.open_without_handle();
    EXPECT_EQ(open_store(&connection, path.c_str(), OpenMode::read_write), Ending::failed);
    EXPECT_EQ(log.take_one(), "3 Unable to open database " + path + ": general DB errror");
    EXPECT_EQ(faults.calls(), Calls{"open " + path});
}

TEST_F(OpenStore, FailureWithAHandleTakesItsDetailAndClosesItUnderTheBusyRule)
{
    StoreConnection connection;

    faults.fail_call(1, SQLITE_CANTOPEN);
    faults.be_busy(SqliteCall::close, 2);
    EXPECT_EQ(open_store(&connection, path.c_str(), OpenMode::read_write), Ending::failed);
    EXPECT_EQ(log.take_one(), "3 Unable to open database " + path + ": not an error");
    EXPECT_EQ(faults.calls(),
              (Calls{"open " + path, "close", "close", "pause 10000", "close", "pause 20000"}));
    EXPECT_TRUE(faults.open_connections().empty());
}

TEST_F(OpenStore, FailedPauseInTheClosingOfAFailedOpenLeavesTheHandle)
{
    StoreConnection connection;

    faults.fail_call(1, SQLITE_CANTOPEN);
    faults.be_busy(SqliteCall::close, 2);
    faults.fail_pause(1);
    EXPECT_EQ(open_store(&connection, path.c_str(), OpenMode::read_write), Ending::abandoned);
    EXPECT_EQ(log.take_one(), "3 Unable to open database " + path + ": not an error");
    EXPECT_EQ(faults.calls(), (Calls{"open " + path, "close", "close", "pause 10000"}));
    EXPECT_EQ(faults.open_connections().size(), 1U);
}

TEST_F(OpenStore, FailureLeavesTheConnectionAsItWas)
{
    StoreConnection connection;

    ASSERT_EQ(open_store(&connection, path.c_str(), OpenMode::read_write), Ending::done);

    sqlite3 *const handle = connection.get();

    EXPECT_EQ(open_store(&connection, folder.path().c_str(), OpenMode::read_write), Ending::failed);
    (void)log.take_one();
    EXPECT_EQ(connection.get(), handle);
    EXPECT_FALSE(faults.is_closed(handle));
}

TEST_F(OpenStore, SuccessClosesWhatTheConnectionHeld)
{
    StoreConnection connection;

    ASSERT_EQ(open_store(&connection, path.c_str(), OpenMode::read_write), Ending::done);

    sqlite3 *const handle = connection.get();

    EXPECT_EQ(open_store(&connection, path.c_str(), OpenMode::read_write), Ending::done);
    EXPECT_TRUE(faults.is_closed(handle));
    EXPECT_TRUE(connection.is_open());
}

} // namespace

} // namespace kolmo::testing
