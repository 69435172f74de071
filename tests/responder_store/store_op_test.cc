#include "responder_store/store_op.h"

#include <array>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/responder_store_fixture.h"
#include "tests/support/sqlite_faults.h"

namespace kolmo
{

namespace
{

using testing::in_transaction;
using testing::Lines;
using testing::ResponderStoreTest;
using testing::SqliteCall;
using testing::SqliteFaults;

const char insert_sql[] = "INSERT INTO extra_headers VALUES (?, ?);";

class StoreOpTest : public ResponderStoreTest
{
protected:
    [[nodiscard]] int insert(const char *name, const char *value, int *came_to)
    {
        const std::array row = {bind_text(name, "Unable to bind name: %s"),
                                bind_text(value, "Unable to bind value: %s")};

        return op.run(insert_sql, row, came_to);
    }

    SqliteFaults faults;
    StoreConnection connection = store.open();
    StoreOp op{&connection};
    int step = -1;
};

using WithStore = StoreOpTest;
using RunRows = StoreOpTest;

TEST_F(StoreOpTest, RunPreparesBindsStepsOnceAndFinalizes)
{
    const std::string path = store.path();

    EXPECT_EQ(insert("a", "b", &step), 0);
    EXPECT_EQ(step, SQLITE_DONE);
    EXPECT_EQ(faults.calls(), (Lines{"open " + path, "busy_timeout 50", std::string("prepare ") + insert_sql,
                                     "bind 1 'a'", "bind 2 'b'", "step", "finalize"}));
    EXPECT_EQ(store.rows("extra_headers"), Lines{"a|b"});
}

TEST_F(StoreOpTest, RunHandsBackWhatTheStatementCameToWithoutAWord)
{
    ASSERT_EQ(insert("a", "b", &step), 0);
    EXPECT_EQ(insert("a", "c", &step), 0);
    EXPECT_EQ(step, SQLITE_CONSTRAINT);
    EXPECT_STREQ(op.detail(), "UNIQUE constraint failed: extra_headers.name");
    EXPECT_TRUE(connection.is_open());
}

TEST_F(StoreOpTest, NullTextIsBoundAsNull)
{
    EXPECT_EQ(insert("a", nullptr, &step), 0);
    EXPECT_EQ(store.rows("extra_headers"), Lines{"a|NULL"});
}

TEST_F(StoreOpTest, IntegersAreBoundAsIntegers)
{
    const std::array row = {bind_int(-2147483647 - 1, "Unable to bind name: %s"),
                            bind_int(2147483647, "Unable to bind value: %s")};

    EXPECT_EQ(op.run("SELECT ?, ?", row, &step), 0);
    EXPECT_EQ(faults.count("bind 1 -2147483648"), 1);
    EXPECT_EQ(faults.count("bind 2 2147483647"), 1);
}

TEST_F(StoreOpTest, FailureIsReportedBeforeItIsFinalizedAndThatBeforeItIsClosed)
{
    const std::array row = {bind_int(1, "Unable to bind first: %s"),
                            bind_int(2, "Unable to bind second: %s")};

    EXPECT_EQ(op.run("SELECT ?", row, &step), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to bind second: column index out of range");
    EXPECT_EQ(faults.calls().back(), "close");
    EXPECT_EQ(*(faults.calls().end() - 2), "finalize");
    EXPECT_FALSE(connection.is_open());
    EXPECT_TRUE(faults.open_connections().empty());
}

TEST_F(StoreOpTest, FailedPauseInTheClosingOfAFailureLeavesTheConnectionHeld)
{
    sqlite3 *const handle = connection.get();

    faults.be_busy(SqliteCall::close, 2);
    faults.fail_pause(1);
    EXPECT_EQ(op.run("nonsense", {}, &step), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to prepare SQL statement for query 'nonsense': "
                              "near \"nonsense\": syntax error");
    EXPECT_EQ(connection.get(), handle);
    EXPECT_EQ(faults.count("close"), 2);
}

TEST_F(StoreOpTest, BusyStepIsResetBeforeItIsTriedAgain)
{
    faults.be_busy(SqliteCall::step, 2);
    EXPECT_EQ(insert("a", "b", &step), 0);

    const Lines tail(faults.calls().end() - 8, faults.calls().end());

    EXPECT_EQ(tail,
              (Lines{"step", "reset", "step", "reset", "pause 10000", "step", "pause 20000", "finalize"}));
    EXPECT_EQ(step, SQLITE_DONE);
}

TEST_F(StoreOpTest, BusyPrepareIsTriedAgain)
{
    faults.be_busy(SqliteCall::prepare, 2);
    EXPECT_EQ(insert("a", "b", &step), 0);
    EXPECT_EQ(faults.count("prepare"), 3);
    EXPECT_EQ(faults.pauses(), (std::vector<long>{10'000, 20'000}));
}

TEST_F(StoreOpTest, BusyBindIsAFailureLikeAnyOther)
{
    faults.be_busy(SqliteCall::bind, 1);
    EXPECT_EQ(insert("a", "b", &step), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to bind name: not an error");
    EXPECT_EQ(faults.count("bind"), 1);
}

TEST_F(StoreOpTest, LockThatNeverGoesEndsTheStepAfter100001Attempts)
{
    faults.be_busy(SqliteCall::step, 1'000'000);
    EXPECT_EQ(insert("a", "b", &step), -1);
    EXPECT_EQ(faults.count("step"), 100'001);
    EXPECT_EQ(faults.count("reset"), 100'001);
    EXPECT_EQ(faults.pauses().size(), 100'000U);
    EXPECT_EQ(faults.calls().back(), "pause 1000000000");
    EXPECT_EQ(faults.open_statements(), Lines{insert_sql});
    EXPECT_TRUE(connection.is_open());
}

TEST_F(StoreOpTest, SelectCallsBackForEachRow)
{
    Lines seen;

    store.execute("INSERT INTO extra_headers VALUES ('a', '1'), ('b', '2'), ('c', '3')");
    EXPECT_EQ(op.select("SELECT name FROM extra_headers ORDER BY name", {}, &step,
                        [&](sqlite3_stmt *row) {
                            seen.emplace_back(reinterpret_cast<const char *>(sqlite3_column_text(row, 0)));
                            return 0;
                        }),
              0);
    EXPECT_EQ(step, SQLITE_DONE);
    EXPECT_EQ(seen, (Lines{"a", "b", "c"}));
    EXPECT_TRUE(faults.open_statements().empty());
}

TEST_F(StoreOpTest, SelectEndsAtTheRowThatSaysSo)
{
    int rows = 0;

    store.execute("INSERT INTO extra_headers VALUES ('a', '1'), ('b', '2'), ('c', '3')");
    EXPECT_EQ(op.select("SELECT name FROM extra_headers", {}, &step,
                        [&](sqlite3_stmt *) { return ++rows == 2 ? -1 : 0; }),
              0);
    EXPECT_EQ(step, SQLITE_ROW);
    EXPECT_EQ(rows, 2);
    EXPECT_EQ(faults.calls().back(), "finalize");
}

TEST_F(StoreOpTest, SelectHandsBackAFailureBetweenTheRows)
{
    int rows = 0;

    store.execute("INSERT INTO extra_headers VALUES ('a', '1'), ('b', '2'), ('c', '3')");
    faults.fail_call(SqliteCall::step, 2, SQLITE_CORRUPT);
    EXPECT_EQ(op.select("SELECT name FROM extra_headers", {}, &step,
                        [&](sqlite3_stmt *) {
                            rows++;
                            return 0;
                        }),
              0);
    EXPECT_EQ(step, SQLITE_CORRUPT);
    EXPECT_EQ(rows, 1);
}

TEST_F(StoreOpTest, SelectAbandonsItsStatementAfterAFailedPause)
{
    faults.be_busy(SqliteCall::step, 2);
    faults.fail_pause(1);
    EXPECT_EQ(op.select("SELECT name FROM extra_headers", {}, &step, [](sqlite3_stmt *) { return 0; }), -1);
    EXPECT_EQ(faults.open_statements(), Lines{"SELECT name FROM extra_headers"});
    EXPECT_EQ(faults.calls().back(), "pause 10000");
}

TEST_F(StoreOpTest, ExecHandsBackSqlitesCodeAndText)
{
    SqliteText error;
    int rc = SQLITE_OK;

    EXPECT_EQ(op.exec("CREATE TABLE one(a); nonsense", &rc, &error), 0);
    EXPECT_EQ(rc, SQLITE_ERROR);
    EXPECT_STREQ(error.get(), "near \"nonsense\": syntax error");
    EXPECT_TRUE(connection.is_open());

    EXPECT_EQ(op.exec("DROP TABLE one", &rc, &error), 0);
    EXPECT_EQ(rc, SQLITE_OK);
    EXPECT_EQ(error, nullptr);
}

TEST_F(StoreOpTest, BeginAndEndEncloseATransaction)
{
    EXPECT_EQ(op.begin(), 0);
    EXPECT_TRUE(in_transaction(connection));
    EXPECT_EQ(insert("a", "b", &step), 0);
    EXPECT_TRUE(store.rows("extra_headers").empty());
    EXPECT_EQ(op.end(), 0);
    EXPECT_FALSE(in_transaction(connection));
    EXPECT_EQ(store.rows("extra_headers"), Lines{"a|b"});
}

TEST_F(StoreOpTest, SecondBeginFailsAndClosesWhichDiscardsTheTransaction)
{
    ASSERT_EQ(op.begin(), 0);
    ASSERT_EQ(insert("a", "b", &step), 0);
    EXPECT_EQ(op.begin(), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to begin sqlite transaction: "
                              "cannot start a transaction within a transaction");
    EXPECT_FALSE(connection.is_open());
    EXPECT_TRUE(store.rows("extra_headers").empty());
}

TEST_F(StoreOpTest, EndWithoutABeginFailsAndCloses)
{
    EXPECT_EQ(op.end(), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to end sqlite transaction: cannot commit - no transaction is active");
    EXPECT_FALSE(connection.is_open());
}

TEST_F(StoreOpTest, DeferredConstraintMakesTheEndFail)
{
    store.execute("CREATE TABLE child(a REFERENCES autoresponder(mn) DEFERRABLE INITIALLY DEFERRED)");
    ASSERT_EQ(op.run("PRAGMA foreign_keys = ON", {}, &step), 0);
    ASSERT_EQ(op.begin(), 0);
    ASSERT_EQ(op.run("INSERT INTO child VALUES ('nobody')", {}, &step), 0);
    EXPECT_EQ(op.end(), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to end sqlite transaction: FOREIGN KEY constraint failed");
    EXPECT_FALSE(connection.is_open());
    EXPECT_TRUE(store.rows("child").empty());
}

TEST_F(WithStore, CallersConnectionIsUsedAndLeftOpen)
{
    EXPECT_EQ(with_store(&connection, "nowhere", OpenMode::read_write,
                         [&](StoreOp &given) { return given.connection() == &connection ? 42 : 0; }),
              42);
    EXPECT_TRUE(connection.is_open());
    EXPECT_EQ(faults.count("close"), 0);
}

TEST_F(WithStore, OwnConnectionIsOpenedAndClosedWhateverTheResult)
{
    for (const int result : {0, 1, -1}) {
        EXPECT_EQ(with_store(nullptr, store.path().c_str(), OpenMode::read_write,
                             [&](StoreOp &own) { return own.connection()->is_open() ? result : 99; }),
                  result);
        EXPECT_EQ(faults.calls().back(), "close");
        EXPECT_EQ(faults.open_connections().size(), 1U) << "the fixture's";
    }
}

TEST_F(WithStore, ReadOnlyStoreIsOpenedReadOnly)
{
    EXPECT_EQ(with_store(nullptr, store.path().c_str(), OpenMode::read_only, [](StoreOp &) { return 0; }), 0);
    EXPECT_EQ(faults.count("open_v2 " + store.path() + " 1"), 1);
}

TEST_F(WithStore, BodyIsNotRunWhenTheStoreCannotBeOpened)
{
    bool ran = false;

    faults.fail_call(1);
    EXPECT_EQ(with_store(nullptr, store.path().c_str(), OpenMode::read_write,
                         [&](StoreOp &) {
                             ran = true;
                             return 0;
                         }),
              -1);
    EXPECT_EQ(log.take_one(), "3 Unable to open database " + store.path() + ": not an error");
    EXPECT_FALSE(ran);
}

TEST_F(WithStore, FailedPauseInItsOwnClosingMakesTheResultMinusOne)
{
    faults.be_busy(SqliteCall::close, 2);
    faults.fail_pause(1);
    EXPECT_EQ(with_store(nullptr, store.path().c_str(), OpenMode::read_write, [](StoreOp &) { return 0; }),
              -1);
    EXPECT_EQ(faults.count("close"), 2) << "not once more at the end of the scope";
    EXPECT_EQ(faults.open_connections().size(), 2U);
}

TEST_F(WithStore, FailedPauseInTheBodyLeavesItsOwnConnectionOpen)
{
    faults.fail_pause(1);
    EXPECT_EQ(with_store(nullptr, store.path().c_str(), OpenMode::read_write,
                         [](StoreOp &) { return busy_pause(10'000); }),
              -1);
    EXPECT_EQ(faults.count("close"), 0);
    EXPECT_EQ(faults.open_connections().size(), 2U);
}

TEST_F(RunRows, RefusedRowIsReportedAndTheRestIsWritten)
{
    const char *const names[] = {"a", "a", "b"};
    int refused = 0;

    EXPECT_EQ(run_rows(
                  op, "INSERT INTO extra_headers VALUES (?, '')", 3,
                  [&](int i) { return std::array{bind_text(names[i], "Unable to bind name: %s")}; },
                  [&] { refused++; }),
              0);
    EXPECT_EQ(refused, 1);
    EXPECT_EQ(store.rows("extra_headers"), (Lines{"a|", "b|"}));
    EXPECT_EQ(faults.count("prepare"), 3) << "anew for each row";
}

TEST_F(RunRows, NegativeCountRunsNothing)
{
    EXPECT_EQ(run_rows(
                  op, insert_sql, -1, [](int) { return std::array<Bind, 0>{}; }, [] {}),
              0);
    EXPECT_EQ(faults.count("prepare"), 0);
}

} // namespace

} // namespace kolmo
