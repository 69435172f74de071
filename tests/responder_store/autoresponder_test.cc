#include "responder_store/responder_db.h"

#include <algorithm>
#include <climits>
#include <string>

#include <gtest/gtest.h>

#include "tests/responder_store/responder_operations.h"
#include "tests/responder_store/transaction_sweep.h"
#include "tests/support/alloc_faults.h"
#include "tests/support/responder_store_fixture.h"
#include "tests/support/sqlite_faults.h"
#include "tests/support/store_sweep.h"

namespace kolmo
{

namespace
{

using namespace testing;

const char replace_sql[] =
    "REPLACE INTO autoresponder (keystr, key_where, subject, reply_to, forward_to, content_type, charset, "
    "body, ans_freq, ans_limit, real_owner, mn) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?  );";
const char delete_sql[] = "DELETE FROM autoresponder WHERE mn = ?;";

/* What stands in the store before each run of a sweep. */
const Lines old = {"autoresponder: box@example.com|NULL|NULL|NULL|NULL|NULL|NULL|NULL|old|NULL|NULL|NULL"};

void add_old_row(const ResponderStore &store)
{
    store.execute("INSERT INTO autoresponder (mn, body) VALUES ('box@example.com', 'old')");
}

class AutoresponderTest : public ResponderStoreTest
{
protected:
    CallersConnection connection = store.open();
    ResponderRecord record = sample_responder();
};

using AddAutoresponder = AutoresponderTest;
using RemoveAutoresponder = AutoresponderTest;

TEST_F(AddAutoresponder, EveryFieldGoesToItsColumnAndNamesAreLowerCased)
{
    EXPECT_EQ(responder_db_add_autoresponder(&connection, "Box", "Example.COM", &record), 0);
    EXPECT_EQ(store.rows("autoresponder"), Lines{sample_row("box@example.com", "owner@example.com")});
    EXPECT_EQ(
        store.query("SELECT DISTINCT typeof(ans_freq), typeof(ans_limit), typeof(body) FROM autoresponder"),
        Lines{"integer|integer|text"});
}

TEST_F(AddAutoresponder, EachColumnHasItsName)
{
    ASSERT_EQ(add_autoresponder(&connection), 0);
    EXPECT_EQ(
        store.query("SELECT mn, keystr, key_where, subject, reply_to, forward_to, content_type, charset, "
                    "body, ans_freq, ans_limit, real_owner FROM autoresponder"),
        Lines{sample_row("box@example.com", "owner@example.com")});
}

TEST_F(AddAutoresponder, BytesBeyondAsciiStayAsTheyAre)
{
    char owner[] = "\xc3\x96WNER";

    record.mail_name = owner;
    EXPECT_EQ(responder_db_add_autoresponder(&connection, "\xc3\x84-BOX_1", "\xc3\x9c.DE", &record), 0);
    EXPECT_EQ(store.query("SELECT mn, real_owner FROM autoresponder"),
              Lines{"\xc3\x84-box_1@\xc3\x9c.de|\xc3\x96wner@\xc3\x9c.de"});
}

TEST_F(AddAutoresponder, QuotesAndPercentSignsAreNothingSpecial)
{
    char text[] = "'); DROP TABLE autoresponder; -- %s%n";

    record.text = text;
    EXPECT_EQ(responder_db_add_autoresponder(&connection, "o'box%s", "example.com", &record), 0);
    EXPECT_EQ(store.query("SELECT mn, body FROM autoresponder"),
              Lines{std::string("o'box%s@example.com|") + text});
}

TEST_F(AddAutoresponder, SecondWriteReplacesTheFirst)
{
    char text[] = "Back again";

    ASSERT_EQ(responder_db_add_autoresponder(&connection, "box", "example.com", &record), 0);
    record.text = text;
    record.ans_freq = 1;
    EXPECT_EQ(responder_db_add_autoresponder(&connection, "BOX", "example.com", &record), 0);
    EXPECT_EQ(store.query("SELECT mn, body, ans_freq FROM autoresponder"),
              Lines{"box@example.com|Back again|1"});
}

TEST_F(AddAutoresponder, EmptyTextsAreStoredAsTextsAndNotAsNull)
{
    char empty[] = "";

    record.keystr = record.key_where = record.subject = record.reply_to = record.content_type = empty;
    record.charset = record.text = record.forward_address = empty;
    EXPECT_EQ(responder_db_add_autoresponder(&connection, "box", "example.com", &record), 0);
    EXPECT_EQ(store.query("SELECT * FROM autoresponder"),
              Lines{"box@example.com|||||||||17|-3|owner@example.com"});
}

TEST_F(AddAutoresponder, IntegersKeepTheirWholeRange)
{
    record.ans_freq = INT_MIN;
    record.mem_limit = INT_MAX;
    EXPECT_EQ(responder_db_add_autoresponder(&connection, "box", "example.com", &record), 0);
    EXPECT_EQ(store.query("SELECT ans_freq, ans_limit FROM autoresponder"), Lines{"-2147483648|2147483647"});
}

TEST_F(AddAutoresponder, FieldsWithoutAColumnAreNotLookedAt)
{
    record.resp_name = record.resp_on = nullptr;
    EXPECT_EQ(responder_db_add_autoresponder(&connection, "Box", "Example.COM", &record), 0);
    EXPECT_EQ(store.rows("autoresponder"), Lines{sample_row("box@example.com", "owner@example.com")});
}

TEST_F(AddAutoresponder, MakesTheseCallsInThisOrder)
{
    const SqliteFaults faults;

    EXPECT_EQ(add_autoresponder(&connection), 0);
    EXPECT_EQ(faults.calls(), (Lines{"prepare BEGIN TRANSACTION;",
                                     "step",
                                     "finalize",
                                     std::string("prepare ") + replace_sql,
                                     "bind 1 'key'",
                                     "bind 2 'where'",
                                     "bind 3 'Subject'",
                                     "bind 4 'Reply@Example.org'",
                                     "bind 5 'Forward@Example.org'",
                                     "bind 6 'text/plain'",
                                     "bind 7 'UTF-8'",
                                     "bind 8 'Gone\nfishing'",
                                     "bind 9 17",
                                     "bind 10 -3",
                                     "bind 11 'owner@example.com'",
                                     "bind 12 'box@example.com'",
                                     "step",
                                     "finalize",
                                     "prepare END TRANSACTION;",
                                     "step",
                                     "finalize"}));
}

/* There is no store to open: whoever tries that first is told so and lives on. */
TEST_F(AddAutoresponder, MailnameAndOwnerAreFormedBeforeAnythingTouchesTheStore)
{
    responder_db_path = "/nonexistent/responder.db";
    for (const int nth : {1, 2})
        EXPECT_EXIT((void)without_memory(nth, [] { return add_autoresponder(nullptr); }),
                    ::testing::ExitedWithCode(1), no_memory_for_a_name);
}

TEST_F(AddAutoresponder, LockOfAnotherWriterIsWaitedForByRepeatingTheStepAfterAReset)
{
    SqliteFaults faults;

    store.execute("BEGIN IMMEDIATE");
    faults.at_pause(2, [&] { store.execute("COMMIT"); });
    EXPECT_EQ(add_autoresponder(&connection), 0);

    const auto bound = std::find(faults.calls().begin(), faults.calls().end(), "bind 12 'box@example.com'");

    EXPECT_EQ(Lines(bound + 1, faults.calls().end()),
              (Lines{"step", "reset", "step", "reset", "pause 10000", "step", "reset", "pause 20000", "step",
                     "pause 30000", "finalize", "prepare END TRANSACTION;", "step", "finalize"}));
    EXPECT_EQ(store.rows("autoresponder").size(), 1U);
}

TEST_F(AddAutoresponder, FailedPauseUnderTheLockOfAnotherWriterLeavesTheTransactionOpen)
{
    SqliteFaults faults;

    store.execute("BEGIN IMMEDIATE");
    faults.fail_pause(1);
    EXPECT_EQ(add_autoresponder(&connection), -1);
    EXPECT_EQ(faults.open_statements(), Lines{replace_sql});
    EXPECT_EQ(faults.calls().back(), "pause 10000");
    EXPECT_TRUE(in_transaction(connection));
    store.execute("COMMIT");
}

TEST_F(AddAutoresponder, RefusedRowLeavesTheTransactionOpenOnTheCallersConnection)
{
    store.execute("CREATE TRIGGER refuse BEFORE INSERT ON autoresponder "
                  "BEGIN SELECT RAISE(ABORT, 'not %s today'); END");
    EXPECT_EQ(add_autoresponder(&connection), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to add/update autoresponder (box@example.com): not %s today");
    EXPECT_TRUE(in_transaction(connection));
}

TEST_F(AddAutoresponder, OperationAfterARefusedRowFailsToBeginAndCloses)
{
    store.execute("CREATE TRIGGER refuse BEFORE INSERT ON autoresponder "
                  "WHEN NEW.mn = 'box@example.com' BEGIN SELECT RAISE(FAIL, 'no'); END");
    ASSERT_EQ(add_autoresponder(&connection), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to add/update autoresponder (box@example.com): no");

    EXPECT_EQ(responder_db_add_autoresponder(&connection, "next", "example.com", &record), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to begin sqlite transaction: "
                              "cannot start a transaction within a transaction");
    EXPECT_FALSE(connection.is_open());
    EXPECT_TRUE(store.rows().empty());
}

TEST_F(AddAutoresponder, RefusalThatRollsBackLeavesTheConnectionOpenWithoutATransaction)
{
    store.execute(
        "CREATE TRIGGER refuse BEFORE INSERT ON autoresponder BEGIN SELECT RAISE(ROLLBACK, 'no'); END");
    EXPECT_EQ(add_autoresponder(&connection), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to add/update autoresponder (box@example.com): no");
    EXPECT_TRUE(connection.is_open());
    EXPECT_FALSE(in_transaction(connection));
}

TEST_F(AddAutoresponder, RefusedRowOnAConnectionOfItsOwnIsDiscardedByTheClose)
{
    SqliteFaults faults;

    store.execute("CREATE TRIGGER refuse AFTER INSERT ON autoresponder BEGIN SELECT RAISE(FAIL, 'no'); END");
    EXPECT_EQ(add_autoresponder(nullptr), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to add/update autoresponder (box@example.com): no");
    EXPECT_EQ(faults.calls().back(), "close");
    EXPECT_TRUE(faults.open_connections().empty());
    EXPECT_TRUE(store.rows().empty());
}

TEST(AddAutoresponderSweep, EveryCallFailsInItsOwnWay)
{
    const Lines written = {"autoresponder: " + sample_row("box@example.com", "owner@example.com")};
    const StoreSweep sweep(add_autoresponder, written, add_old_row);
    const std::string refused = "Unable to add/update autoresponder (box@example.com): ";

    sweep_transaction(sweep,
                      {{replace_sql,
                        {{"keystr", "'key'"},
                         {"key_where", "'where'"},
                         {"subject", "'Subject'"},
                         {"reply_to", "'Reply@Example.org'"},
                         {"forward_to", "'Forward@Example.org'"},
                         {"content_type", "'text/plain'"},
                         {"charset", "'UTF-8'"},
                         {"body", "'Gone\nfishing'"},
                         {"ans_freq", "17"},
                         {"ans_limit", "-3"},
                         {"real_owner", "'owner@example.com'"},
                         {"mailname", "'box@example.com'"}},
                        {"step", refused, -1, Left::in_transaction, old}}},
                      old, written);
}

TEST_F(RemoveAutoresponder, RowOfTheMailboxGoesAndAllElseStays)
{
    store.execute(other_rows);
    store.execute(rows_of_box);
    EXPECT_EQ(responder_db_remove_autoresponder(&connection, "BOX", "Example.COM"), 0);
    EXPECT_EQ(store.query("SELECT mn FROM autoresponder"), Lines{"other@example.com"});
    EXPECT_EQ(store.rows("attachments"), (Lines{"other@example.com|stays", "box@example.com|old"}));
    EXPECT_EQ(store.rows("extra_headers"), Lines{"X-Old|old"});
}

TEST_F(RemoveAutoresponder, MailboxWithoutARowIsNoFailure)
{
    store.execute(other_rows);
    EXPECT_EQ(remove_autoresponder(&connection), 0);
    EXPECT_EQ(store.query("SELECT mn FROM autoresponder"), Lines{"other@example.com"});
}

TEST_F(RemoveAutoresponder, TakesAwayWhatWasAddedUnderAnotherCase)
{
    ASSERT_EQ(responder_db_add_autoresponder(&connection, "bOX", "EXAMPLE.com", &record), 0);
    EXPECT_EQ(responder_db_remove_autoresponder(&connection, "Box", "example.COM"), 0);
    EXPECT_TRUE(store.rows().empty());
}

TEST_F(RemoveAutoresponder, MailnameIsFormedBeforeAnythingTouchesTheStore)
{
    responder_db_path = "/nonexistent/responder.db";
    EXPECT_EXIT((void)without_memory(1, [] { return remove_autoresponder(nullptr); }),
                ::testing::ExitedWithCode(1), no_memory_for_a_name);
}

TEST_F(RemoveAutoresponder, RefusedDeletionIsCalledAnAdditionAndIsNoFailure)
{
    store.execute(rows_of_box);
    store.execute(
        "CREATE TRIGGER refuse BEFORE DELETE ON autoresponder BEGIN SELECT RAISE(ABORT, 'no'); END");
    EXPECT_EQ(remove_autoresponder(&connection), 0);
    EXPECT_EQ(log.take_one(), "3 Unable to add autoresponder data (box@example.com): no");
    EXPECT_TRUE(connection.is_open());
    EXPECT_FALSE(in_transaction(connection));
    EXPECT_EQ(store.rows("autoresponder").size(), 1U);
}

TEST_F(RemoveAutoresponder, RefusalThatRollsBackMakesTheEndFail)
{
    store.execute(rows_of_box);
    store.execute(
        "CREATE TRIGGER refuse BEFORE DELETE ON autoresponder BEGIN SELECT RAISE(ROLLBACK, 'no'); END");
    EXPECT_EQ(remove_autoresponder(&connection), -1);
    EXPECT_EQ(log.take(),
              (Lines{"3 Unable to add autoresponder data (box@example.com): no",
                     "3 Unable to end sqlite transaction: cannot commit - no transaction is active"}));
    EXPECT_FALSE(connection.is_open());
}

TEST(RemoveAutoresponderSweep, EveryCallFailsInItsOwnWay)
{
    const StoreSweep sweep(remove_autoresponder, {}, add_old_row);
    const std::string refused = "Unable to add autoresponder data (box@example.com): ";

    sweep_transaction(
        sweep, {{delete_sql, {{"mailname", "'box@example.com'"}}, {"step", refused, 0, Left::open, old}}},
        old, {});
}

} // namespace

} // namespace kolmo
