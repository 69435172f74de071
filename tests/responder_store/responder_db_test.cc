/*
 * What the six operations on the responder store have in common: which store they work on, and how they
 * fail when it is not there, locked or closed.
 */
#include "responder_store/responder_db.h"

#include <chrono>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "responder_store/kit/busy_retry.h"
#include "tests/responder_store/responder_operations.h"
#include "tests/support/other_process_lock.h"
#include "tests/support/responder_store_fixture.h"
#include "tests/support/sqlite_faults.h"

namespace kolmo
{

namespace
{

using namespace testing;

struct Operation {
    const char *name;
    int (*run)(StoreConnection *);
    const char *first_failure; /* what it reports of a first statement that fails, up to the detail */
    int first_code;            /* what it returns then: -1, or SQLite's own code for 0 */
    const char *data_failure;  /* and of a table that is missing */
    const char *rows;          /* in its table afterwards, in a store with nothing but rows_of_box */
};

std::ostream &operator<<(std::ostream &stream, const Operation &operation)
{
    return stream << operation.name;
}

const Operation operations[] = {
    {"AddAutoresponder", add_autoresponder, cannot_prepare_begin, -1,
     "Unable to prepare SQL statement for query 'REPLACE INTO autoresponder (keystr, key_where, subject, "
     "reply_to, forward_to, content_type, charset, body, ans_freq, ans_limit, real_owner, mn) VALUES (?, ?, "
     "?, "
     "?, ?, ?, ?, ?, ?, ?, ?, ?  );': no such table: autoresponder",
     "SELECT body = 'Gone\nfishing', count(*) FROM autoresponder"},
    {"RemoveAutoresponder", remove_autoresponder, cannot_prepare_begin, -1,
     "Unable to prepare SQL statement for query 'DELETE FROM autoresponder WHERE mn = ?;': "
     "no such table: autoresponder",
     "SELECT count(*) = 0, 1 FROM autoresponder"},
    {"AddAttachments", add_attachments, cannot_prepare_begin, -1,
     "Unable to prepare SQL statement for query 'REPLACE INTO attachments VALUES (?, ?  );': "
     "no such table: attachments",
     "SELECT count(*) = 3, 1 FROM attachments"},
    {"RemoveAttachments", remove_attachments, cannot_prepare_begin, -1,
     "Unable to prepare SQL statement for query 'DELETE FROM attachments WHERE mn = ?;': "
     "no such table: attachments",
     "SELECT count(*) = 0, 1 FROM attachments"},
    {"AddExtraHeaders", add_extra_headers, cannot_prepare_begin, -1,
     "Unable to prepare SQL statement for query 'REPLACE INTO extra_headers VALUES (?, ?  );': "
     "no such table: extra_headers",
     "SELECT count(*) = 3, 1 FROM extra_headers"},
    {"RemoveExtraHeaders", remove_extra_headers, "Unable to remove autoresponder extra headers: ", 0,
     "Unable to remove autoresponder extra headers: no such table: extra_headers",
     "SELECT count(*) = 0, 1 FROM extra_headers"},
};

class ResponderDb : public ResponderStoreTest, public ::testing::WithParamInterface<Operation>
{
protected:
    [[nodiscard]] int run(StoreConnection *connection) { return GetParam().run(connection); }

    /* Whether the operation did its work, in a store with rows_of_box. */
    [[nodiscard]] bool has_worked() const { return store.query(GetParam().rows) == Lines{"1|1"}; }

    /* Runs it while a transaction that is begun so stands in its way, and goes in the third pause. */
    void expect_waits_for(const std::string &transaction);

    /* Its result for a first statement that fails with this code of SQLite's. */
    [[nodiscard]] static int result_for(int code)
    {
        return GetParam().first_code != 0 ? GetParam().first_code : code;
    }
};

void ResponderDb::expect_waits_for(const std::string &transaction)
{
    StoreConnection connection = store.open();
    SqliteFaults faults;

    store.execute(rows_of_box);
    store.execute(transaction);
    faults.at_pause(3, [&] { store.execute("COMMIT"); });
    EXPECT_EQ(run(&connection), 0);
    EXPECT_EQ(faults.pauses(), (std::vector<long>{10'000, 20'000, 30'000, 40'000}));
    EXPECT_TRUE(has_worked());
}

INSTANTIATE_TEST_SUITE_P(Operations, ResponderDb, ::testing::ValuesIn(operations),
                         [](const auto &test) { return std::string(test.param.name); });

TEST(ResponderDbPath, IsTheMailServers)
{
    EXPECT_STREQ(responder_db_path, "/var/lib/kolmo/mail/autoresponder/responder.db");
}

TEST_P(ResponderDb, CallersConnectionIsUsedAndLeftOpen)
{
    StoreConnection connection = store.open();
    const SqliteFaults faults;

    store.execute(rows_of_box);
    responder_db_path = "/nonexistent/responder.db";
    EXPECT_EQ(run(&connection), 0);
    EXPECT_TRUE(has_worked());
    EXPECT_TRUE(connection.is_open());
    EXPECT_FALSE(in_transaction(connection));
    EXPECT_EQ(faults.count("open") + faults.count("close"), 0);
}

TEST_P(ResponderDb, OwnConnectionIsOpenedWithABusyTimeoutAndClosed)
{
    const SqliteFaults faults;

    store.execute(rows_of_box);
    EXPECT_EQ(run(nullptr), 0);
    EXPECT_TRUE(has_worked());
    EXPECT_EQ(Lines(faults.calls().begin(), faults.calls().begin() + 2),
              (Lines{"open " + store.path(), "busy_timeout 50"}));
    EXPECT_EQ(faults.calls().back(), "close");
    EXPECT_EQ(faults.count("open") + faults.count("close"), 2);
}

TEST_P(ResponderDb, PathThatIsAssignedTakesEffectForTheNextOpen)
{
    const std::string first = store.path();

    store.execute(rows_of_box);
    EXPECT_EQ(run(nullptr), 0);
    EXPECT_TRUE(has_worked());
    {
        ResponderStore second;

        second.execute(rows_of_box);
        EXPECT_EQ(run(nullptr), 0);
        EXPECT_EQ(second.query(GetParam().rows), Lines{"1|1"});
    }
    EXPECT_EQ(responder_db_path, first);
}

TEST_P(ResponderDb, MissingFolderAndFolderCannotBeOpened)
{
    for (const std::string &bad : {store.folder().path("none/responder.db"), store.folder().path()}) {
        responder_db_path = bad.c_str();
        EXPECT_EQ(run(nullptr), -1);
        EXPECT_EQ(log.take_one(), "3 Unable to open database " + bad + ": unable to open database file");
    }
}

/* SQLite opens it, and begins a transaction in it: only the tables are looked for in the file. */
TEST_P(ResponderDb, FileThatIsNoDatabaseFailsAtTheFirstStatementThatReadsIt)
{
    const std::string garbage = store.folder().write("garbage", std::string(4096, 'x'));
    const std::string failure = GetParam().data_failure;

    responder_db_path = garbage.c_str();
    EXPECT_EQ(run(nullptr), result_for(SQLITE_NOTADB));
    EXPECT_EQ(log.take_one(),
              "3 " + failure.substr(0, failure.find("no such table")) + "file is not a database");
}

TEST_P(ResponderDb, MissingTableIsReportedAndClosesAllButTheHeadersRemoval)
{
    StoreConnection connection = store.open();

    store.execute("DROP TABLE autoresponder; DROP TABLE attachments; DROP TABLE extra_headers");
    EXPECT_EQ(run(&connection), result_for(SQLITE_ERROR));
    EXPECT_EQ(log.take_one(), std::string("3 ") + GetParam().data_failure);
    EXPECT_EQ(connection.is_open(), GetParam().first_code == 0);
}

TEST_P(ResponderDb, MissingFileIsCreatedWithoutTables)
{
    const std::string missing = store.folder().path("new.db");

    responder_db_path = missing.c_str();
    EXPECT_EQ(run(nullptr), result_for(SQLITE_ERROR));
    EXPECT_EQ(log.take_one(), std::string("3 ") + GetParam().data_failure);
}

TEST_P(ResponderDb, ClosedConnectionFailsWithTheFixedDetail)
{
    StoreConnection connection;

    EXPECT_EQ(run(&connection), result_for(SQLITE_MISUSE));
    EXPECT_EQ(log.take_one(), std::string("3 ") + GetParam().first_failure + "general DB errror");
    EXPECT_FALSE(connection.is_open());
}

TEST_P(ResponderDb, ConnectionThatAFailureClosedFailsAgainAndIsNotClosedTwice)
{
    StoreConnection connection = store.open();
    SqliteFaults faults;

    faults.fail_call(1);
    ASSERT_EQ(add_autoresponder(&connection), -1);
    EXPECT_EQ(log.take_one(), std::string("3 ") + cannot_prepare_begin + "not an error");

    EXPECT_EQ(run(&connection), result_for(SQLITE_MISUSE));
    EXPECT_EQ(log.take_one(), std::string("3 ") + GetParam().first_failure + "general DB errror");
    EXPECT_EQ(close_with_retry(&connection), Ending::done);
    EXPECT_EQ(faults.count("close"), 1);
}

TEST_P(ResponderDb, LockOfAnotherProcessIsWaitedForOnTheCallersConnection)
{
    StoreConnection connection = store.open();

    store.execute(rows_of_box);

    const auto start = std::chrono::steady_clock::now();
    const OtherProcessLock lock(store.path(), 300);

    EXPECT_EQ(run(&connection), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
    EXPECT_TRUE(has_worked());
}

TEST_P(ResponderDb, LockOfAnotherProcessIsWaitedForOnAConnectionOfItsOwn)
{
    store.execute(rows_of_box);

    const OtherProcessLock lock(store.path(), 300);

    EXPECT_EQ(run(nullptr), 0);
    EXPECT_TRUE(has_worked());
}

TEST_P(ResponderDb, PauseThatFailsUnderARealLockLeavesAllAsItStands)
{
    CallersConnection connection = store.open();
    SqliteFaults faults;

    store.execute("BEGIN EXCLUSIVE");
    faults.fail_pause(2);
    EXPECT_EQ(run(&connection), -1);
    EXPECT_EQ(faults.calls().back(), "pause 20000");
    EXPECT_TRUE(connection.is_abandoned());
    store.execute("COMMIT");
}

TEST_P(ResponderDb, LockThatGoesIsWaitedForWithGrowingPauses)
{
    expect_waits_for("BEGIN EXCLUSIVE");
}

TEST_P(ResponderDb, ReaderThatKeepsTheCommitWaitingIsWaitedFor)
{
    expect_waits_for("BEGIN; SELECT count(*) FROM autoresponder");
}

} // namespace

} // namespace kolmo
