#include "restore/alias_propagation.h"

#include <cstdarg>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "handlers_store/handlers_db.h"
#include "responder_store/kit/busy_retry.h"
#include "tests/restore/panel_watch.h"
#include "tests/restore/restore_fixture.h"
#include "tests/support/sqlite_faults.h"
#include "tests/support/store_sweep.h"

namespace kolmo
{

namespace
{

using namespace testing;

const std::string replies_sql =
    "REPLACE INTO autoresponder SELECT replace(mn, '@one.example', '@one.alias'), keystr, key_where, "
    "subject, reply_to, forward_to, content_type, charset, body, ans_freq, ans_limit, real_owner FROM "
    "autoresponder;";
const std::string attachments_sql =
    "REPLACE INTO attachments SELECT replace(mn, '@one.example', '@one.alias'), filename FROM attachments;";

/* The statement, from 1, for whose text SQLite has no memory; 0 for none, and once it was reached. */
int statement_without_memory;

extern "C" char *__wrap_sqlite3_mprintf(const char *format, ...)
{
    std::va_list arguments;

    if (statement_without_memory > 0 && --statement_without_memory == 0)
        return nullptr;
    va_start(arguments, format);
    char *const text = sqlite3_vmprintf(format, arguments);
    va_end(arguments);
    return text;
}

/* A row like sample_row's, which is its own owner. */
void add_reply(const ResponderStore &store, const std::string &mailname)
{
    store.execute("INSERT INTO autoresponder VALUES ('" + mailname +
                  "', 'key', 'where', 'Subject', 'Reply@Example.org', 'Forward@Example.org', 'text/plain', "
                  "'UTF-8', 'Gone\nfishing', 17, -3, '" +
                  mailname + "')");
}

void add_attachment(const ResponderStore &store, const std::string &mailname, const std::string &file)
{
    store.execute("INSERT INTO attachments VALUES ('" + mailname + "', '" + file + "')");
}

/* --- the responder store alone ------------------------------------------------------------------------ */

class CopyRespondersToAlias : public ResponderStoreTest
{
protected:
    int copy() { return copy_responders_to_alias(&connection, "one.example", "one.alias"); }

    [[nodiscard]] Lines keys() const { return store.query("SELECT mn FROM autoresponder ORDER BY mn"); }

    CallersConnection connection = store.open();
};

TEST_F(CopyRespondersToAlias, EachReplyGetsATwinWithTheSameOwner)
{
    add_reply(store, "anna@one.example");
    add_reply(store, "info@one.example");

    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(store.query("SELECT * FROM autoresponder ORDER BY mn"),
              (Lines{sample_row("anna@one.alias", "anna@one.example"),
                     sample_row("anna@one.example", "anna@one.example"),
                     sample_row("info@one.alias", "info@one.example"),
                     sample_row("info@one.example", "info@one.example")}));
    EXPECT_TRUE(connection.is_open());
    EXPECT_FALSE(in_transaction(connection));
}

TEST_F(CopyRespondersToAlias, EachAttachmentIsThereTwice)
{
    add_attachment(store, "anna@one.example", "a.txt");
    add_attachment(store, "anna@one.example", "B.txt");

    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(store.query("SELECT * FROM attachments ORDER BY mn, filename"),
              (Lines{"anna@one.alias|B.txt", "anna@one.alias|a.txt", "anna@one.example|B.txt",
                     "anna@one.example|a.txt"}));
}

struct Key {
    const char *key;
    const char *twin; /* null for none */
};

const Key keys_and_twins[] = {
    {"a@one.example", "a@one.alias"},
    {"b@one.example.org", "b@one.alias.org"}, /* the text counts, not the whole domain */
    {"c@ONE.example", nullptr},               /* in this very case */
    {"d@sub.one.example", nullptr},           /* right behind the "@" */
    {"one.example", nullptr},
    {"e@one.example@one.example", "e@one.alias@one.alias"}, /* every occurrence */
    {"f@other.example", nullptr},
};

TEST_F(CopyRespondersToAlias, KeysAreMatchedByTheirText)
{
    for (const Key &key : keys_and_twins) {
        store.execute("DELETE FROM autoresponder; DELETE FROM attachments");
        add_reply(store, key.key);
        add_attachment(store, key.key, "f");

        EXPECT_EQ(copy(), 0);

        const Lines expected = key.twin != nullptr ? Lines{key.key, key.twin} : Lines{key.key};

        EXPECT_EQ(store.query("SELECT mn FROM autoresponder ORDER BY rowid"), expected);
        EXPECT_EQ(store.query("SELECT mn FROM attachments ORDER BY rowid"), expected);
    }
}

TEST_F(CopyRespondersToAlias, RepeatedCopyDoesNotGrowTheTables)
{
    add_reply(store, "info@one.example");
    add_attachment(store, "info@one.example", "f");

    ASSERT_EQ(copy(), 0);
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(keys(), (Lines{"info@one.alias", "info@one.example"}));
    EXPECT_EQ(store.query("SELECT count(*) FROM attachments"), Lines{"2"});
}

TEST_F(CopyRespondersToAlias, TwinThatIsThereAlreadyIsReplaced)
{
    add_reply(store, "info@one.alias");
    store.execute("UPDATE autoresponder SET subject = 'old'");
    add_reply(store, "info@one.example");

    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(store.query("SELECT mn, subject FROM autoresponder ORDER BY mn"),
              (Lines{"info@one.alias|Subject", "info@one.example|Subject"}));
}

/* There is no condition: every row is written again. */
TEST_F(CopyRespondersToAlias, RowsOfOthersStandTwiceWhereNoKeyForbidsIt)
{
    store.execute("DROP TABLE attachments; CREATE TABLE attachments (mn, filename)");
    add_attachment(store, "info@other.example", "f");

    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(store.rows("attachments"), (Lines{"info@other.example|f", "info@other.example|f"}));
}

TEST_F(CopyRespondersToAlias, ExtraHeadersAreLeftAlone)
{
    store.execute("INSERT INTO extra_headers VALUES ('x@one.example', '@one.example')");

    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(store.rows(), Lines{"extra_headers: x@one.example|@one.example"});
}

TEST_F(CopyRespondersToAlias, BothCopiesAreOneTransaction)
{
    const SqliteFaults faults;

    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(faults.calls(), (Lines{"prepare BEGIN TRANSACTION;", "step", "finalize", //
                                     "prepare " + replies_sql, "step", "finalize",     //
                                     "prepare " + attachments_sql, "step", "finalize", //
                                     "prepare END TRANSACTION;", "step", "finalize"}));
}

TEST_F(CopyRespondersToAlias, RefusedReplyIsReportedAndLeavesTheTransactionOpen)
{
    add_reply(store, "info@one.example");
    store.execute(
        "CREATE TRIGGER refuse BEFORE INSERT ON autoresponder BEGIN SELECT RAISE(ABORT, 'no'); END");

    EXPECT_EQ(copy(), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to exec query1: no");
    EXPECT_TRUE(in_transaction(connection));
}

TEST_F(CopyRespondersToAlias, RefusedAttachmentIsReportedAndLeavesTheTransactionOpen)
{
    add_attachment(store, "info@one.example", "f");
    store.execute("CREATE TRIGGER refuse BEFORE INSERT ON attachments BEGIN SELECT RAISE(ABORT, 'no'); END");

    EXPECT_EQ(copy(), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to exec query2: no");
    EXPECT_TRUE(in_transaction(connection));
}

/* So the alias gets neither copy. */
TEST_F(CopyRespondersToAlias, TransactionLeftOpenIsDiscardedByTheClosing)
{
    add_reply(store, "info@one.example");
    add_attachment(store, "info@one.example", "f");
    store.execute("CREATE TRIGGER refuse BEFORE INSERT ON attachments BEGIN SELECT RAISE(ABORT, 'no'); END");
    ASSERT_EQ(copy(), -1);
    (void)log.take();

    EXPECT_EQ(close_with_retry(&connection), Ending::done);
    EXPECT_EQ(keys(), Lines{"info@one.example"});
}

TEST_F(CopyRespondersToAlias, QuotesInNamesAreJustCharacters)
{
    for (const char *alias : {"o'brien.example", "\"q\".example", "100%s.example"}) {
        const std::string twin = std::string("anna@") + alias;

        add_reply(store, "anna@it''s.example"); /* as an SQL text */
        EXPECT_EQ(copy_responders_to_alias(&connection, "it's.example", alias), 0) << alias;
        EXPECT_EQ(keys(),
                  (alias[0] < 'a' ? Lines{twin, "anna@it's.example"} : Lines{"anna@it's.example", twin}));
        store.execute("DELETE FROM autoresponder");
    }
}

TEST_F(CopyRespondersToAlias, NoConnectionFailsCleanly)
{
    const std::string line =
        "3 Unable to prepare SQL statement for query 'BEGIN TRANSACTION;': general DB errror";
    StoreConnection closed;

    EXPECT_EQ(copy_responders_to_alias(nullptr, "one.example", "one.alias"), -1);
    EXPECT_EQ(log.take_one(), line);
    EXPECT_EQ(copy_responders_to_alias(&closed, "one.example", "one.alias"), -1);
    EXPECT_EQ(log.take_one(), line);
}

TEST_F(CopyRespondersToAlias, StatementsWithoutMemoryAreReportedBeforeTheStoreIsTouched)
{
    const std::string lines[] = {"3 Unable to prepare query1: out of memory",
                                 "3 Unable to prepare query2: out of memory"};
    const SqliteFaults sqlite;
    int nth = 0;

    for (const std::string &line : lines) {
        statement_without_memory = ++nth;
        EXPECT_EQ(copy(), -1);
        EXPECT_EQ(statement_without_memory, 0) << "the fault was not hit";
        EXPECT_EQ(log.take_one(), line);
        EXPECT_EQ(sqlite.calls(), Lines{});
        EXPECT_TRUE(connection.is_open());
    }
}

/* --- every failure of the copy, one after the other ---------------------------------------------------- */

Left left_of(const StoreConnection &connection)
{
    if (connection.get() == nullptr)
        return Left::closed;
    return in_transaction(connection) ? Left::in_transaction : Left::open;
}

/* A store with a reply and an attachment, and a connection; the faults start last. */
struct CopyRun {
    CopyRun()
    {
        const SqliteFaults::Aside aside;

        add_reply(store, "info@one.example");
        add_attachment(store, "info@one.example", "f");
    }

    int copy() { return copy_responders_to_alias(&connection, "one.example", "one.alias"); }

    [[nodiscard]] std::size_t committed_rows() const
    {
        const SqliteFaults::Aside aside;

        return store.rows().size();
    }

    ResponderStore store;
    CallersConnection connection = store.open();
    sqlite3 *handle = connection.get();
    SqliteFaults faults;
    LogCapture log;
};

TEST(CopyRespondersToAliasSweep, EveryCallFailsInItsOwnWay)
{
    const auto cannot_prepare = [](const std::string &sql) {
        return "Unable to prepare SQL statement for query '" + sql + "': ";
    };
    const std::vector<FaultRow> table = {
        {"prepare BEGIN TRANSACTION;", cannot_prepare("BEGIN TRANSACTION;"), -1, Left::closed, {}},
        {"step", "Unable to begin sqlite transaction: ", -1, Left::closed, {}},
        {"prepare " + replies_sql, cannot_prepare(replies_sql), -1, Left::closed, {}},
        {"step", "Unable to exec query1: ", -1, Left::in_transaction, {}},
        {"prepare " + attachments_sql, cannot_prepare(attachments_sql), -1, Left::closed, {}},
        {"step", "Unable to exec query2: ", -1, Left::in_transaction, {}},
        {"prepare END TRANSACTION;", cannot_prepare("END TRANSACTION;"), -1, Left::closed, {}},
        {"step", "Unable to end sqlite transaction: ", -1, Left::closed, {}},
    };
    int nth = 0;

    for (const FaultRow &row : table) {
        SCOPED_TRACE("call " + std::to_string(++nth));
        CopyRun run;

        run.faults.fail_call(nth);

        EXPECT_EQ(run.copy(), row.result);
        EXPECT_EQ(run.faults.failed_call(), row.call);
        EXPECT_EQ(run.log.take(), Lines{"3 " + row.message + "not an error"});
        EXPECT_EQ(left_of(run.connection), row.left);
        EXPECT_EQ(run.faults.is_closed(run.handle), row.left == Left::closed);
        EXPECT_EQ(run.faults.open_statements(), Lines{});
        EXPECT_EQ(run.committed_rows(), 2U);
    }

    CopyRun run;

    EXPECT_EQ(run.copy(), 0);
    EXPECT_EQ(static_cast<std::size_t>(run.faults.calls_made()), table.size());
    EXPECT_EQ(run.committed_rows(), 4U);
}

/* Nothing is logged, finalized, ended or closed then. */
TEST(CopyRespondersToAliasSweep, FailedPauseEndsItWithoutAWord)
{
    const std::vector<PauseRow> table = {
        {"BEGIN TRANSACTION;", Left::open, {}},         {"BEGIN TRANSACTION;", Left::in_transaction, {}},
        {replies_sql, Left::in_transaction, {}},        {replies_sql, Left::in_transaction, {}},
        {attachments_sql, Left::in_transaction, {}},    {attachments_sql, Left::in_transaction, {}},
        {"END TRANSACTION;", Left::in_transaction, {}}, {"END TRANSACTION;", Left::open, {}},
    };
    int nth = 0;

    for (const PauseRow &row : table) {
        SCOPED_TRACE("pause " + std::to_string(++nth));
        CopyRun run;

        run.faults.be_busy_everywhere(1);
        run.faults.fail_pause(nth);

        EXPECT_EQ(run.copy(), -1);
        EXPECT_EQ(run.faults.calls().back(), "pause 10000");
        EXPECT_EQ(run.faults.open_statements(), Lines{row.statement});
        EXPECT_EQ(left_of(run.connection), row.left);

        const std::size_t calls = run.faults.calls().size();

        EXPECT_EQ(run.copy(), -1);
        EXPECT_EQ(close_with_retry(&run.connection), Ending::abandoned);
        EXPECT_EQ(run.faults.calls().size(), calls) << "what is abandoned is left alone";
        EXPECT_EQ(run.log.take(), Lines{});
    }

    CopyRun run;

    run.faults.be_busy_everywhere(1);
    EXPECT_EQ(run.copy(), 0);
    EXPECT_EQ(run.faults.pauses(), std::vector<long>(table.size(), 10'000));
}

TEST(CopyRespondersToAliasSweep, BusyStepIsResetBeforeItIsTriedAgain)
{
    CopyRun run;

    run.faults.be_busy(SqliteCall::step, 2);

    EXPECT_EQ(run.copy(), 0);
    EXPECT_EQ(run.faults.count("step"), 12);
    EXPECT_EQ(run.faults.count("reset"), 8);
    EXPECT_EQ(run.committed_rows(), 4U);
}

/* A failed call closes as it retries: under the busy rule. */
TEST(CopyRespondersToAliasSweep, ClosingAfterAFailureIsRepeatedWhileBusy)
{
    CopyRun run;

    run.faults.fail_call(SqliteCall::prepare, 1);
    run.faults.be_busy(SqliteCall::close, 2);

    EXPECT_EQ(run.copy(), -1);
    EXPECT_EQ(run.log.take().size(), 1U);
    EXPECT_EQ(run.faults.count("close"), 3);
    EXPECT_FALSE(run.connection.is_open());
}

/* --- with the panel ------------------------------------------------------------------------------------ */

class RestoreAliasResponders : public RestoreTest
{
protected:
    void SetUp() override
    {
        RestoreTest::SetUp();
        handlers.add(handler("autoresponder", "info@one.example"));
        add_reply(store, "info@one.example");
    }

    [[nodiscard]] Lines keys() const { return store.query("SELECT mn FROM autoresponder ORDER BY mn"); }
};

TEST_F(RestoreAliasResponders, DomainWithoutAliasesCopiesNothing)
{
    panel.add_alias(2, "other.alias");
    const PanelWatch watch;

    EXPECT_EQ(restore_alias_responders("1", "one.example"), 0);
    EXPECT_EQ(watch.queries, Lines{"SELECT name FROM domain_aliases  WHERE dom_id=1"});
    EXPECT_EQ(handler_addresses(), Lines{"info@one.example"});
    EXPECT_EQ(keys(), Lines{"info@one.example"});
}

TEST_F(RestoreAliasResponders, EachAliasGetsHandlersAndReplies)
{
    panel.add_alias(1, "a.alias");
    panel.add_alias(1, "b.alias");

    EXPECT_EQ(restore_alias_responders("1", "one.example"), 0);
    EXPECT_EQ(handler_addresses(), (Lines{"info@a.alias", "info@b.alias", "info@one.example"}));
    EXPECT_EQ(keys(), (Lines{"info@a.alias", "info@b.alias", "info@one.example"}));
}

/* The first one is the one that fails. */
TEST_F(RestoreAliasResponders, AliasesComeInTheServersOrder)
{
    panel.execute("DROP TABLE domain_aliases; CREATE TABLE domain_aliases (dom_id INT, name VARCHAR(255)) "
                  "ENGINE=MyISAM; INSERT INTO domain_aliases VALUES (1, 'z.alias'), (1, 'a.alias')");
    refuse_rows("autoresponder");

    EXPECT_EQ(restore_alias_responders("1", "one.example"), 1);
    EXPECT_EQ(log.take().back(), "3 Unable to sync configuration for domain alias z.alias");
    EXPECT_EQ(handler_addresses(), (Lines{"info@one.example", "info@z.alias"}));
}

TEST_F(RestoreAliasResponders, FailedHandlersLeaveTheRepliesAloneAndEndIt)
{
    const std::string path = handlers.folder().path("missing/handlers.db");

    panel.add_alias(1, "a.alias");
    panel.add_alias(1, "b.alias");
    handlers_db_set_path(path.c_str());

    const int result = restore_alias_responders("1", "one.example");

    handlers_db_set_path(handlers.path().c_str());
    EXPECT_EQ(result, 1);
    EXPECT_EQ(log.take(), (Lines{"3 Unable to open database " + path + ": unable to open database file",
                                 "3 Unable to set mail handlers for domain alias a.alias"}));
    EXPECT_EQ(keys(), Lines{"info@one.example"});
    EXPECT_TRUE(responder_db.is_open());
}

/* And what was copied first stays: the handlers of this alias, and only of this one. */
TEST_F(RestoreAliasResponders, FailedRepliesLeaveTheHandlersCopiedAndEndIt)
{
    panel.add_alias(1, "a.alias");
    panel.add_alias(1, "b.alias");
    refuse_rows("autoresponder");

    EXPECT_EQ(restore_alias_responders("1", "one.example"), 1);
    EXPECT_EQ(log.take(), (Lines{"3 Unable to exec query1: refused",
                                 "3 Unable to sync configuration for domain alias a.alias"}));
    EXPECT_EQ(handler_addresses(), (Lines{"info@a.alias", "info@one.example"}));
    EXPECT_TRUE(in_transaction(responder_db));
}

TEST_F(RestoreAliasResponders, CopyWithoutAConnectionDoesNotTakeTheRuns)
{
    EXPECT_EQ(copy_responders_to_alias(nullptr, "one.example", "a.alias"), -1);
    EXPECT_EQ(log.take_one(),
              "3 Unable to prepare SQL statement for query 'BEGIN TRANSACTION;': general DB errror");
    EXPECT_TRUE(responder_db.is_open());
    EXPECT_EQ(keys(), Lines{"info@one.example"});
}

TEST_F(RestoreAliasResponders, AliasesBeforeTheFailingOneAreKept)
{
    panel.add_alias(1, "a.alias");
    panel.add_alias(1, "b.alias");
    store.execute("CREATE TRIGGER refuse BEFORE INSERT ON autoresponder WHEN NEW.mn LIKE '%@b.alias' "
                  "BEGIN SELECT RAISE(ABORT, 'refused'); END");

    EXPECT_EQ(restore_alias_responders("1", "one.example"), 1);
    EXPECT_EQ(log.take(), (Lines{"3 Unable to exec query1: refused",
                                 "3 Unable to sync configuration for domain alias b.alias"}));
    EXPECT_EQ(keys(), (Lines{"info@a.alias", "info@one.example"}));
}

TEST_F(RestoreAliasResponders, RefusedQueryIsReportedInTheServersWords)
{
    panel.execute("DROP TABLE domain_aliases");

    EXPECT_EQ(restore_alias_responders("1", "one.example"), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to query domain aliases: Table 'qsx.domain_aliases' doesn't exist");
}

TEST_F(RestoreAliasResponders, ResultThatCannotBeFetchedIsReported)
{
    panel.add_alias(1, "a.alias");
    PanelWatch watch;

    watch.lose_result(1);

    EXPECT_EQ(restore_alias_responders("1", "one.example"), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to query domain aliases: ");
    EXPECT_EQ(keys(), Lines{"info@one.example"});
}

/* The query may have 4095 characters. */
TEST_F(RestoreAliasResponders, IdThatTheQueryHasRoomForIsAsked)
{
    const std::string head = "SELECT name FROM domain_aliases  WHERE dom_id=";
    const std::string id = std::string(4095 - head.size() - 1, ' ') + '1';
    const PanelWatch watch;

    EXPECT_EQ(restore_alias_responders(id.c_str(), "one.example"), 0);
    EXPECT_EQ(watch.queries, Lines{head + id});
}

TEST_F(RestoreAliasResponders, IdThatTheQueryHasNoRoomForIsReportedAndNothingAsked)
{
    const std::string head = "SELECT name FROM domain_aliases  WHERE dom_id=";
    const std::string id = std::string(4095 - head.size(), ' ') + '1';
    const PanelWatch watch;

    EXPECT_EQ(restore_alias_responders(id.c_str(), "one.example"), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to generate query for domain aliases");
    EXPECT_EQ(watch.queries, Lines{});
}

} // namespace

} // namespace kolmo
