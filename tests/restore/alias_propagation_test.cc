#include "restore/alias_propagation.h"

#include <cstdarg>
#include <string>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "handlers_store/handlers_db.h"
#include "tests/restore/panel_watch.h"
#include "tests/restore/restore_fixture.h"
#include "tests/support/sqlite_faults.h"
#include "tests/support/store_sweep.h"

namespace kolmo::testing
{

namespace
{

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

    StoreConnection connection = store.open();
};

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

class CopySweep : public ResponderStoreTest, protected StoreSweep
{
protected:
    CopySweep() : StoreSweep(store, log) {}

    void fill() override
    {
        store.execute("DELETE FROM autoresponder; DELETE FROM attachments");
        add_reply(store, "info@one.example");
        add_attachment(store, "info@one.example", "f");
    }

    [[nodiscard]] Lines contents() override
    {
        return store.query("SELECT mn FROM autoresponder UNION ALL SELECT mn FROM attachments ORDER BY mn");
    }
};

TEST_F(CopySweep, EveryCallAndEveryPauseFailsInItsOwnWay)
{
    const Lines before = {"info@one.example", "info@one.example"};
    const Lines after = {"info@one.alias", "info@one.alias", "info@one.example", "info@one.example"};
    const Operation copy = [](StoreConnection *connection) {
        return copy_responders_to_alias(connection, "one.example", "one.alias");
    };

    sweep_callers_calls(
        begin_rows(before) + prepare_row(replies_sql, before) +
            open_after("step", "Unable to exec query1: ", -1, Connection::in_transaction, before) +
            prepare_row(attachments_sql, before) +
            open_after("step", "Unable to exec query2: ", -1, Connection::in_transaction, before) +
            end_rows(before),
        copy);
    sweep_callers_pauses(repeat({{7, before}, {1, after}}), copy);
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

TEST_F(RestoreAliasResponders, FailedHandlersLeaveTheRepliesAloneAndEndIt)
{
    const std::string path = handlers.folder().path("missing/handlers.db");

    panel.add_alias(1, "a.alias");
    panel.add_alias(1, "b.alias");
    handlers_db_set_path(path.c_str());
    EXPECT_EQ(restore_alias_responders("1", "one.example"), 1);
    handlers_db_set_path(handlers.path().c_str());
    EXPECT_EQ(log.take(), (Lines{"3 Unable to open database " + path + ": unable to open database file",
                                 "3 Unable to set mail handlers for domain alias a.alias"}));
    EXPECT_EQ(keys(), Lines{"info@one.example"});
    EXPECT_TRUE(responder_db.is_open());
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

} // namespace kolmo::testing
