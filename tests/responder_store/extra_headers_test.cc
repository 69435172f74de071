#include "responder_store/responder_db.h"

#include <algorithm>
#include <string>

#include <gtest/gtest.h>

#include "tests/responder_store/responder_operations.h"
#include "tests/responder_store/transaction_sweep.h"
#include "tests/support/responder_store_fixture.h"
#include "tests/support/sqlite_faults.h"
#include "tests/support/store_sweep.h"

namespace kolmo
{

namespace
{

using namespace testing;

const char replace_sql[] = "REPLACE INTO extra_headers VALUES (?, ?  );";

class ExtraHeadersTest : public ResponderStoreTest
{
protected:
    StoreConnection connection = store.open();
};

using AddExtraHeaders = ExtraHeadersTest;
using RemoveExtraHeaders = ExtraHeadersTest;

TEST_F(AddExtraHeaders, PairsAreStoredInOrder)
{
    EXPECT_EQ(add_extra_headers(&connection), 0);
    EXPECT_EQ(store.rows("extra_headers"), (Lines{"X-One|1", "X-Two|2"}));
}

TEST_F(AddExtraHeaders, TextsAreStoredAsTheyAre)
{
    const char *const names[] = {" X-A:", "x-a", ""};
    const char *const values[] = {"", " 100% 'it'\r\n ", "\xc3\x84"};

    EXPECT_EQ(responder_db_add_extra_headers(&connection, names, values, 3), 0);
    EXPECT_EQ(store.rows("extra_headers"), (Lines{" X-A:|", "x-a| 100% 'it'\r\n ", "|\xc3\x84"}));
}

TEST_F(AddExtraHeaders, SameNameTwiceIsReplacedByTheLaterValue)
{
    const char *const names[] = {"X-A", "X-A"};
    const char *const values[] = {"first", "second"};
    const SqliteFaults faults;

    EXPECT_EQ(responder_db_add_extra_headers(&connection, names, values, 2), 0);
    EXPECT_EQ(faults.count(std::string("prepare ") + replace_sql), 2);
    EXPECT_EQ(store.rows("extra_headers"), Lines{"X-A|second"});
}

TEST_F(AddExtraHeaders, SameNameTwiceGivesTwoRowsWhereNoKeyForbidsIt)
{
    const char *const names[] = {"X-A", "X-A"};
    const char *const values[] = {"first", "second"};

    store.execute("DROP TABLE extra_headers; CREATE TABLE extra_headers (name, value)");
    EXPECT_EQ(responder_db_add_extra_headers(&connection, names, values, 2), 0);
    EXPECT_EQ(store.rows("extra_headers"), (Lines{"X-A|first", "X-A|second"}));
}

TEST_F(AddExtraHeaders, CountOfZeroTouchesNothing)
{
    const SqliteFaults faults;

    EXPECT_EQ(responder_db_add_extra_headers(&connection, nullptr, nullptr, 0), 0);
    EXPECT_TRUE(faults.calls().empty());
}

TEST_F(AddExtraHeaders, CountOfZeroOpensAndClosesAConnectionOfItsOwn)
{
    const SqliteFaults faults;

    EXPECT_EQ(responder_db_add_extra_headers(nullptr, nullptr, nullptr, 0), 0);
    EXPECT_EQ(faults.calls(), (Lines{"open " + store.path(), "busy_timeout 50", "close"}));
}

TEST_F(AddExtraHeaders, NegativeCountIsAnEmptyTransaction)
{
    const SqliteFaults faults;

    EXPECT_EQ(responder_db_add_extra_headers(&connection, nullptr, nullptr, -1), 0);
    EXPECT_EQ(faults.calls(), (Lines{"prepare BEGIN TRANSACTION;", "step", "finalize",
                                     "prepare END TRANSACTION;", "step", "finalize"}));
}

TEST_F(AddExtraHeaders, RefusedPairIsReportedWithoutItsNameAndTheRestIsWritten)
{
    store.execute("CREATE TRIGGER refuse BEFORE INSERT ON extra_headers "
                  "WHEN NEW.name = 'X-One' BEGIN SELECT RAISE(ABORT, 'no'); END");
    EXPECT_EQ(add_extra_headers(&connection), 0);
    EXPECT_EQ(log.take_one(), "3 Unable to add autoresponder extra headers: no");
    EXPECT_EQ(store.rows("extra_headers"), Lines{"X-Two|2"});
    EXPECT_TRUE(connection.is_open());
}

TEST_F(AddExtraHeaders, RefusalThatRollsBackMakesTheEndFail)
{
    store.execute("CREATE TRIGGER refuse BEFORE INSERT ON extra_headers "
                  "WHEN NEW.name = 'X-Two' BEGIN SELECT RAISE(ROLLBACK, 'no'); END");
    EXPECT_EQ(add_extra_headers(&connection), -1);
    EXPECT_EQ(log.take(),
              (Lines{"3 Unable to add autoresponder extra headers: no",
                     "3 Unable to end sqlite transaction: cannot commit - no transaction is active"}));
    EXPECT_FALSE(connection.is_open());
    EXPECT_TRUE(store.rows().empty());
}

TEST(AddExtraHeadersSweep, EveryCallFailsInItsOwnWay)
{
    const Lines written = {"extra_headers: X-One|1", "extra_headers: X-Two|2"};
    const std::string refused = "Unable to add autoresponder extra headers: ";

    sweep_transaction(StoreSweep(add_extra_headers, written),
                      {{replace_sql,
                        {{"name", "'X-One'"}, {"value", "'1'"}},
                        {"step", refused, 0, Left::open, {written[1]}}},
                       {replace_sql,
                        {{"name", "'X-Two'"}, {"value", "'2'"}},
                        {"step", refused, 0, Left::open, {written[0]}}}},
                      {}, written);
}

TEST_F(RemoveExtraHeaders, AllHeadersGoAndAllElseStays)
{
    store.execute(rows_of_box);
    ASSERT_EQ(add_extra_headers(&connection), 0);
    EXPECT_EQ(remove_extra_headers(&connection), 0);
    EXPECT_TRUE(store.rows("extra_headers").empty());
    EXPECT_EQ(store.rows().size(), 2U);
    EXPECT_TRUE(connection.is_open());
}

TEST_F(RemoveExtraHeaders, EmptyTableIsNoFailure)
{
    EXPECT_EQ(remove_extra_headers(&connection), 0);
}

TEST_F(RemoveExtraHeaders, IsOneStatementWithoutATransaction)
{
    const SqliteFaults faults;

    EXPECT_EQ(remove_extra_headers(nullptr), 0);
    EXPECT_EQ(faults.calls(),
              (Lines{"open " + store.path(), "busy_timeout 50", "exec DELETE FROM extra_headers", "close"}));
}

TEST_F(RemoveExtraHeaders, RefusedDeletionGivesSqlitesCodeAndLeavesTheConnectionOpen)
{
    store.execute(rows_of_box);
    store.execute(
        "CREATE TRIGGER refuse BEFORE DELETE ON extra_headers BEGIN SELECT RAISE(ABORT, 'no'); END");
    EXPECT_EQ(remove_extra_headers(&connection), SQLITE_CONSTRAINT);
    EXPECT_EQ(log.take_one(), "3 Unable to remove autoresponder extra headers: no");
    EXPECT_TRUE(connection.is_open());
    EXPECT_EQ(store.rows("extra_headers"), Lines{"X-Old|old"});
}

TEST_F(RemoveExtraHeaders, MissingTableGivesSqlitesCodeAndClosesItsOwnConnection)
{
    store.execute("DROP TABLE extra_headers");

    const SqliteFaults faults;

    EXPECT_EQ(remove_extra_headers(nullptr), SQLITE_ERROR);
    EXPECT_EQ(log.take_one(), "3 Unable to remove autoresponder extra headers: no such table: extra_headers");
    EXPECT_EQ(faults.calls().back(), "close");
    EXPECT_TRUE(faults.open_connections().empty());
}

/* Its text comes with each refusal; the leak checker tells whether each was freed. */
TEST_F(RemoveExtraHeaders, BusyDeletionIsRepeatedWithGrowingPauses)
{
    SqliteFaults faults;

    faults.be_busy(SqliteCall::exec, 3);
    EXPECT_EQ(remove_extra_headers(&connection), 0);
    EXPECT_EQ(faults.count("exec"), 4);
    EXPECT_EQ(faults.pauses(), (std::vector<long>{10'000, 20'000, 30'000}));
}

TEST_F(RemoveExtraHeaders, LockThatGoesIsWaitedForByRepeatingTheDeletion)
{
    SqliteFaults faults;

    store.execute("BEGIN IMMEDIATE");
    faults.at_pause(2, [&] { store.execute("COMMIT"); });
    EXPECT_EQ(remove_extra_headers(&connection), 0);
    EXPECT_EQ(faults.count("exec DELETE FROM extra_headers"), 4);
    EXPECT_EQ(faults.pauses(), (std::vector<long>{10'000, 20'000, 30'000}));
}

TEST(RemoveExtraHeadersSweep, EveryCallFailsInItsOwnWay)
{
    const Lines old = {"extra_headers: X-Old|old"};
    const StoreSweep sweep(remove_extra_headers, {}, [](const ResponderStore &store) {
        store.execute("INSERT INTO extra_headers VALUES ('X-Old', 'old')");
    });

    sweep.fail_each_call({
        {"exec DELETE FROM extra_headers", "Unable to remove autoresponder extra headers: ", SQLITE_ERROR,
         Left::open, old},
    });
    sweep.fail_each_pause({
        {"", Left::open, {}},
    });
}

} // namespace

} // namespace kolmo
