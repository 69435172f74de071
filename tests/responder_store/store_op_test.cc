#include "responder_store/kit/store_op.h"

#include <array>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/responder_store_fixture.h"
#include "tests/support/sqlite_faults.h"

namespace kolmo::testing
{

namespace
{

constexpr Sql<2> insert_sql = "INSERT INTO extra_headers VALUES (?, ?);";
constexpr Sql<0> names_sql = "SELECT name FROM extra_headers ORDER BY name";

class StoreOpTest : public ResponderStoreTest
{
protected:
    [[nodiscard]] bool insert(const char *name, const char *value)
    {
        const std::array row = {bind_text(name, "Unable to bind name: %s"),
                                bind_text(value, "Unable to bind value: %s")};

        return op.run(insert_sql, row);
    }

    /* What the rows' names are, and how they end. */
    [[nodiscard]] Ending select(Lines *names)
    {
        Rows rows(op, names_sql, {});

        while (rows.next())
            names->emplace_back(rows.text(0));
        return rows.finish("Unable to select: %s");
    }

    SqliteFaults faults;
    StoreConnection connection = store.open();
    StoreOp op{&connection};
};

using RowsTest = StoreOpTest;
using WithStore = StoreOpTest;
using RunRows = StoreOpTest;

TEST_F(StoreOpTest, RunPreparesBindsStepsOnceAndFinalizes)
{
    const std::string path = store.path();

    EXPECT_TRUE(insert("a", "b"));
    EXPECT_EQ(op.ending(), Ending::done);
    EXPECT_EQ(faults.calls(),
              (Lines{"open " + path, "busy_timeout 50", std::string("prepare ") + insert_sql.get(),
                     "bind 1 'a'", "bind 2 'b'", "step", "finalize"}));
    EXPECT_EQ(store.rows("extra_headers"), Lines{"a|b"});
}

TEST_F(StoreOpTest, RefusedRowIsToldWithoutAWordAndDoesNotEndTheOperation)
{
    ASSERT_TRUE(insert("a", "b"));
    EXPECT_FALSE(insert("a", "c"));
    EXPECT_STREQ(op.detail(), "UNIQUE constraint failed: extra_headers.name");
    EXPECT_EQ(op.ending(), Ending::done);
    EXPECT_TRUE(connection.is_open());
}

TEST_F(StoreOpTest, RowIsNoSuccess)
{
    EXPECT_FALSE(op.run(Sql<0>("SELECT 1"), {}));
    EXPECT_EQ(op.ending(), Ending::done);
}

TEST_F(StoreOpTest, NullTextIsBoundAsNull)
{
    EXPECT_TRUE(insert("a", nullptr));
    EXPECT_EQ(store.rows("extra_headers"), Lines{"a|NULL"});
}

TEST_F(StoreOpTest, IntegersAreBoundAsIntegers)
{
    const std::array row = {bind_int(-2147483647 - 1, "Unable to bind name: %s"),
                            bind_int(2147483647, "Unable to bind value: %s")};

    EXPECT_TRUE(op.run(insert_sql, row));
    EXPECT_EQ(faults.count("bind 1 -2147483648"), 1);
    EXPECT_EQ(faults.count("bind 2 2147483647"), 1);
}

TEST_F(StoreOpTest, FailureIsReportedBeforeItIsFinalizedAndThatBeforeItIsClosed)
{
    const std::array row = {bind_int(1, "Unable to bind first: %s"),
                            bind_int(2, "Unable to bind second: %s")};

    log.on_line = [&] {
        EXPECT_EQ(faults.calls().back(), "bind 2 2") << "logged too late";
    };
    EXPECT_TRUE(op.run(Sql<2>::made("SELECT ?"), row)) << "nothing was refused";
    EXPECT_EQ(log.take_one(), "3 Unable to bind second: column index out of range");
    EXPECT_EQ(op.ending(), Ending::failed);
    EXPECT_EQ(faults.calls().back(), "close");
    EXPECT_EQ(*(faults.calls().end() - 2), "finalize");
    EXPECT_FALSE(connection.is_open());
    EXPECT_TRUE(faults.open_connections().empty());
}

TEST_F(StoreOpTest, StepsAfterAFailureDoNothing)
{
    SqliteText error;
    Lines names;
    int rc;

    faults.fail_call(1);
    EXPECT_EQ(op.begin(), Ending::failed);
    EXPECT_FALSE(log.take_one().empty());

    const std::size_t calls = faults.calls().size();

    EXPECT_EQ(op.begin(), Ending::failed);
    EXPECT_TRUE(insert("a", "b"));
    EXPECT_EQ(select(&names), Ending::failed);
    EXPECT_EQ(op.exec("SELECT 1", &rc, &error), Ending::failed);
    EXPECT_EQ(op.end(), Ending::failed);
    EXPECT_EQ(faults.calls().size(), calls);
}

TEST_F(StoreOpTest, FailedPauseInTheClosingOfAFailureAbandonsTheConnection)
{
    sqlite3 *const handle = connection.get();

    faults.be_busy(SqliteCall::close, 2);
    faults.fail_pause(1);
    EXPECT_TRUE(op.run(Sql<0>("nonsense"), {}));
    EXPECT_EQ(log.take_one(), "3 Unable to prepare SQL statement for query 'nonsense': "
                              "near \"nonsense\": syntax error");
    EXPECT_EQ(op.ending(), Ending::abandoned);
    EXPECT_EQ(connection.get(), handle);
    EXPECT_EQ(faults.count("close"), 2);
}

TEST_F(StoreOpTest, BusyStepIsResetBeforeItIsTriedAgain)
{
    faults.be_busy(SqliteCall::step, 2);
    EXPECT_TRUE(insert("a", "b"));

    const Lines tail(faults.calls().end() - 8, faults.calls().end());

    EXPECT_EQ(tail,
              (Lines{"step", "reset", "step", "reset", "pause 10000", "step", "pause 20000", "finalize"}));
    EXPECT_EQ(store.rows("extra_headers"), Lines{"a|b"});
}

TEST_F(StoreOpTest, BusyPrepareIsTriedAgain)
{
    faults.be_busy(SqliteCall::prepare, 2);
    EXPECT_TRUE(insert("a", "b"));
    EXPECT_EQ(faults.count("prepare"), 3);
    EXPECT_EQ(faults.pauses(), (std::vector<long>{10'000, 20'000}));
}

TEST_F(StoreOpTest, BusyBindIsAFailureLikeAnyOther)
{
    faults.be_busy(SqliteCall::bind, 1);
    EXPECT_TRUE(insert("a", "b"));
    EXPECT_EQ(log.take_one(), "3 Unable to bind name: not an error");
    EXPECT_EQ(faults.count("bind"), 1);
}

TEST_F(StoreOpTest, LockThatNeverGoesEndsTheStepAfter100001Attempts)
{
    faults.be_busy(SqliteCall::step, 1'000'000);
    EXPECT_TRUE(insert("a", "b"));
    EXPECT_EQ(op.ending(), Ending::abandoned);
    EXPECT_EQ(faults.count("step"), 100'001);
    EXPECT_EQ(faults.count("reset"), 100'001);
    EXPECT_EQ(faults.pauses().size(), 100'000U);
    EXPECT_EQ(faults.calls().back(), "pause 1000000000");
    EXPECT_EQ(faults.open_statements(), Lines{insert_sql.get()});
    EXPECT_TRUE(connection.is_abandoned());
}

TEST_F(RowsTest, EachRowComesOnceAndTheStatementIsFinalized)
{
    Lines names;

    store.execute("INSERT INTO extra_headers VALUES ('a', '1'), ('b', '2'), ('c', '3')");
    EXPECT_EQ(select(&names), Ending::done);
    EXPECT_EQ(names, (Lines{"a", "b", "c"}));
    EXPECT_TRUE(faults.open_statements().empty());
}

TEST_F(RowsTest, RowsThatAreLeftEarlyAreReportedAsNotEnded)
{
    store.execute("INSERT INTO extra_headers VALUES ('a', '1'), ('b', '2')");
    {
        Rows rows(op, names_sql, {});

        EXPECT_TRUE(rows.next());
        EXPECT_EQ(rows.finish("Unable to select: %s"), Ending::failed);
    }
    EXPECT_EQ(log.take_one(), "3 Unable to select: another row available");
    EXPECT_EQ(faults.calls().back(), "finalize");
    EXPECT_TRUE(connection.is_open());
}

TEST_F(RowsTest, FailureBetweenTheRowsIsReportedAndLeavesTheConnectionOpen)
{
    Lines names;

    store.execute("INSERT INTO extra_headers VALUES ('a', '1'), ('b', '2'), ('c', '3')");
    faults.fail_call(SqliteCall::step, 2, SQLITE_CORRUPT);
    EXPECT_EQ(select(&names), Ending::failed);
    EXPECT_EQ(names, Lines{"a"});
    EXPECT_EQ(log.take_one(), "3 Unable to select: another row available");
    EXPECT_TRUE(connection.is_open());
}

TEST_F(RowsTest, FailedPauseAbandonsTheStatementInSilence)
{
    Lines names;

    faults.be_busy(SqliteCall::step, 2);
    faults.fail_pause(1);
    EXPECT_EQ(select(&names), Ending::abandoned);
    EXPECT_EQ(faults.open_statements(), Lines{names_sql.get()});
    EXPECT_EQ(faults.calls().back(), "pause 10000");
}

TEST_F(RowsTest, SelectThatCannotBePreparedIsReportedAsThatOnly)
{
    Lines names;

    store.execute("DROP TABLE extra_headers");
    EXPECT_EQ(select(&names), Ending::failed);
    EXPECT_EQ(log.take_one(), std::string("3 Unable to prepare SQL statement for query '") + names_sql.get() +
                                  "': no such table: extra_headers");
    EXPECT_FALSE(connection.is_open());
}

TEST_F(StoreOpTest, ExecHandsBackSqlitesCodeAndText)
{
    SqliteText error;
    int rc = SQLITE_OK;

    EXPECT_EQ(op.exec("CREATE TABLE one(a); nonsense", &rc, &error), Ending::done);
    EXPECT_EQ(rc, SQLITE_ERROR);
    EXPECT_STREQ(error.get(), "near \"nonsense\": syntax error");
    EXPECT_TRUE(connection.is_open());

    EXPECT_EQ(op.exec("DROP TABLE one", &rc, &error), Ending::done);
    EXPECT_EQ(rc, SQLITE_OK);
    EXPECT_EQ(error, nullptr);
}

TEST_F(StoreOpTest, BeginAndEndEncloseATransaction)
{
    EXPECT_EQ(op.begin(), Ending::done);
    EXPECT_TRUE(in_transaction(connection));
    EXPECT_TRUE(insert("a", "b"));
    EXPECT_TRUE(store.rows("extra_headers").empty());
    EXPECT_EQ(op.end(), Ending::done);
    EXPECT_FALSE(in_transaction(connection));
    EXPECT_EQ(store.rows("extra_headers"), Lines{"a|b"});
}

TEST_F(StoreOpTest, SecondBeginFailsAndClosesWhichDiscardsTheTransaction)
{
    ASSERT_EQ(op.begin(), Ending::done);
    ASSERT_TRUE(insert("a", "b"));
    EXPECT_EQ(op.begin(), Ending::failed);
    EXPECT_EQ(log.take_one(), "3 Unable to begin sqlite transaction: "
                              "cannot start a transaction within a transaction");
    EXPECT_FALSE(connection.is_open());
    EXPECT_TRUE(store.rows("extra_headers").empty());
}

TEST_F(StoreOpTest, EndWithoutABeginFailsAndCloses)
{
    EXPECT_EQ(op.end(), Ending::failed);
    EXPECT_EQ(log.take_one(), "3 Unable to end sqlite transaction: cannot commit - no transaction is active");
    EXPECT_FALSE(connection.is_open());
}

TEST_F(StoreOpTest, DeferredConstraintMakesTheEndFail)
{
    store.execute("CREATE TABLE child(a REFERENCES autoresponder(mn) DEFERRABLE INITIALLY DEFERRED)");
    ASSERT_TRUE(op.run(Sql<0>("PRAGMA foreign_keys = ON"), {}));
    ASSERT_EQ(op.begin(), Ending::done);
    ASSERT_TRUE(op.run(Sql<0>("INSERT INTO child VALUES ('nobody')"), {}));
    EXPECT_EQ(op.end(), Ending::failed);
    EXPECT_EQ(log.take_one(), "3 Unable to end sqlite transaction: FOREIGN KEY constraint failed");
    EXPECT_FALSE(connection.is_open());
    EXPECT_TRUE(store.rows("child").empty());
}

TEST_F(WithStore, CallersConnectionIsUsedAndLeftOpen)
{
    EXPECT_EQ(with_store(&connection, "nowhere", OpenMode::read_write,
                         [&](StoreOp &given) {
                             EXPECT_EQ(given.connection(), &connection);
                             return Ending::failed;
                         }),
              Ending::failed);
    EXPECT_TRUE(connection.is_open());
    EXPECT_EQ(faults.count("close"), 0);
}

TEST_F(WithStore, OwnConnectionIsOpenedAndClosedWhateverTheEnding)
{
    for (const Ending ending : {Ending::done, Ending::failed}) {
        faults.fail_call(SqliteCall::close, 1, SQLITE_BUSY);
        EXPECT_EQ(with_store(nullptr, store.path().c_str(), OpenMode::read_write,
                             [&](StoreOp &own) {
                                 EXPECT_TRUE(own.connection()->is_open());
                                 return ending;
                             }),
                  ending);
        EXPECT_EQ(Lines(faults.calls().end() - 3, faults.calls().end()),
                  (Lines{"close", "close", "pause 10000"}));
        EXPECT_EQ(faults.open_connections().size(), 1U) << "the fixture's";
    }
}

TEST_F(WithStore, ReadOnlyStoreIsOpenedReadOnly)
{
    EXPECT_EQ(with_store(nullptr, store.path().c_str(), OpenMode::read_only,
                         [](StoreOp &own) { return own.ending(); }),
              Ending::done);
    EXPECT_EQ(faults.count("open_v2 " + store.path() + " 1"), 1);
}

TEST_F(WithStore, BodyIsNotRunWithoutAConnection)
{
    const auto body = [](StoreOp &) {
        ADD_FAILURE() << "run";
        return Ending::done;
    };

    faults.fail_call(1);
    EXPECT_EQ(with_store(nullptr, store.path().c_str(), OpenMode::read_write, body), Ending::failed);
    EXPECT_EQ(log.take_one(), "3 Unable to open database " + store.path() + ": not an error");

    faults.fail_call(1);
    faults.be_busy(SqliteCall::close, 2);
    faults.fail_pause(1);
    EXPECT_EQ(with_store(nullptr, store.path().c_str(), OpenMode::read_write, body), Ending::abandoned);
    EXPECT_FALSE(log.take_one().empty());

    connection.abandon();
    EXPECT_EQ(with_store(&connection, store.path().c_str(), OpenMode::read_write, body), Ending::abandoned);
}

TEST_F(WithStore, FailedPauseInItsOwnClosingAbandonsIt)
{
    faults.be_busy(SqliteCall::close, 2);
    faults.fail_pause(1);
    EXPECT_EQ(with_store(nullptr, store.path().c_str(), OpenMode::read_write,
                         [](StoreOp &own) { return own.ending(); }),
              Ending::abandoned);
    EXPECT_EQ(faults.count("close"), 2) << "not once more at the end of the scope";
    EXPECT_EQ(faults.open_connections().size(), 2U);
}

TEST_F(WithStore, FailedPauseInTheBodyLeavesItsOwnConnectionOpen)
{
    faults.be_busy(SqliteCall::step, 2);
    faults.fail_pause(1);
    EXPECT_EQ(with_store(nullptr, store.path().c_str(), OpenMode::read_write,
                         [](StoreOp &own) { return own.begin(); }),
              Ending::abandoned);
    EXPECT_EQ(faults.count("close"), 0);
    EXPECT_EQ(faults.open_connections().size(), 2U);
}

TEST_F(RunRows, RefusedRowIsReportedAndTheRestIsWritten)
{
    const char *const names[] = {"a", "a", "b"};
    int refused = 0;

    run_rows<1>(
        op, "INSERT INTO extra_headers VALUES (?, '')", 3,
        [&](int i) { return std::array{bind_text(names[i], "Unable to bind name: %s")}; },
        [&] { refused++; });
    EXPECT_EQ(op.ending(), Ending::done);
    EXPECT_EQ(refused, 1);
    EXPECT_EQ(store.rows("extra_headers"), (Lines{"a|", "b|"}));
    EXPECT_EQ(faults.count("prepare"), 3) << "anew for each row";
}

TEST_F(RunRows, NegativeCountRunsNothing)
{
    run_rows<0>(
        op, "nonsense", -1, [](int) { return std::array<Bind, 0>{}; }, [] {});
    EXPECT_EQ(op.ending(), Ending::done);
    EXPECT_EQ(faults.count("prepare"), 0);
}

} // namespace

} // namespace kolmo::testing
