#include "responder_store/responder_db.h"

#include <string>

#include <gtest/gtest.h>

#include "tests/responder_store/responder_operations.h"
#include "tests/support/responder_store_fixture.h"
#include "tests/support/sqlite_faults.h"

namespace kolmo::testing
{

namespace
{

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

TEST_F(AddExtraHeaders, SameNameTwiceGivesTwoRowsWhereNoKeyForbidsIt)
{
    const char *const names[] = {"X-A", "X-A"};
    const char *const values[] = {"first", "second"};

    store.execute("DROP TABLE extra_headers; CREATE TABLE extra_headers (name, value)");
    EXPECT_EQ(responder_db_add_extra_headers(&connection, names, values, 2), 0);
    EXPECT_EQ(store.rows("extra_headers"), (Lines{"X-A|first", "X-A|second"}));
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

TEST_F(RemoveExtraHeaders, SqlitesTextOfAFailureIsFreedBeforeItIsLogged)
{
    SqliteFaults faults;
    const sqlite3_int64 before = sqlite3_memory_used();
    sqlite3_int64 used = 0;

    ASSERT_GT(before, 0);
    faults.fail_call(SqliteCall::exec, 1);
    log.on_line = [&] {
        used = sqlite3_memory_used();
    };
    EXPECT_EQ(remove_extra_headers(&connection), SQLITE_ERROR);
    EXPECT_EQ(used, before);
    EXPECT_EQ(log.take_one(), "3 Unable to remove autoresponder extra headers: not an error");
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

} // namespace

} // namespace kolmo::testing
