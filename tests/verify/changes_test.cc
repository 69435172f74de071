/* One thing is changed in a store that is right: exactly that is found. */
#include <cstdio>
#include <filesystem>
#include <new>
#include <string>

#include <grp.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "panel/panel_db.h"
#include "tests/support/temp_dir.h"
#include "tests/verify/verify_world.h"

namespace kolmo
{

namespace
{

using namespace testing;

/* A panel with one of everything, rebuilt once; each change is made to copies of its stores. */
class ChangeTest : public VerifyTest
{
protected:
    void SetUp() override
    {
        VerifyTest::SetUp();
        panel->execute(sql_domain(1, "a.test") + sql_alias(1, "b.test") + sql_mailbox(1, 1, "Info") +
                       "INSERT INTO mail_resp VALUES (1001, 1, 'default', 'key', 'subj', 'Away', 'r@x.test', "
                       "'text/html', 'latin1', 'Back soon.', 'true', 7, 70);"
                       "INSERT INTO resp_forward VALUES (1001, 'f@x.test');"
                       "INSERT INTO resp_attach VALUES (1001, 'one.pdf'), (1001, 'two.pdf');" +
                       sql_headers(R"({"X-A": "1", "X-B": "2"})"));
        ASSERT_EQ(rebuild().status, 0);
        ASSERT_EQ(look().status, 0);
    }

    /* What is found in fresh copies of the stores after the statement. */
    Lines found_after(const std::string &store, const std::string &sql)
    {
        const TempDir folder;
        const std::string responders = folder.path("responder.db");
        const std::string handlers = folder.path("handlers.db");
        VerifyOptions options;

        std::filesystem::copy_file(responder_store, responders);
        std::filesystem::copy_file(handlers_store, handlers);
        change_store(store == responder_store ? responders : handlers, sql);
        options.responder_path = responders.c_str();
        options.handlers_path = handlers.c_str();
        options.check_owners = false;

        const Look seen = look(options);

        EXPECT_EQ(seen.troubles, Lines{});
        return seen.findings;
    }
};

struct ColumnRow {
    const char *column;
    const char *value; /* as it is after the rebuild */
};

const ColumnRow reply_rows[] = {
    {"keystr", "key"},        {"key_where", "subj"},         {"subject", "Away"},
    {"reply_to", "r@x.test"}, {"forward_to", "f@x.test"},    {"charset", "latin1"},
    {"body", "Back soon."},   {"content_type", "text/html"}, {"ans_freq", "7"},
    {"ans_limit", "70"},      {"real_owner", "info@a.test"},
};

TEST_F(ChangeTest, EachColumnOfAReplyIsFound)
{
    for (const std::string address : {"info@a.test", "info@b.test"}) {
        for (const ColumnRow &row : reply_rows) {
            for (const std::string value : {"'71'", "NULL", "''"}) {
                const std::string shown = value == "NULL" ? value : value.substr(1, value.size() - 2);

                EXPECT_EQ(found_after(responder_store, "UPDATE autoresponder SET " + std::string(row.column) +
                                                           " = " + value + " WHERE mn = '" + address + "'"),
                          Lines{"reply-differs rebuild " + address + ' ' + row.column + ": " + row.value +
                                " > " + shown});
            }
        }
    }
}

const ColumnRow handler_rows_of_test[] = {
    {"priority", "90"},
    {"executable", "/opt/qsx/handlers/hooks/autoresponder"},
    {"context", "responder"},
    {"protected", "0"},
};

TEST_F(ChangeTest, EachColumnOfAHandlerIsFound)
{
    for (const std::string address : {"info@a.test", "info@b.test"}) {
        for (const ColumnRow &row : handler_rows_of_test)
            EXPECT_EQ(
                found_after(handlers_store, "UPDATE handlers SET " + std::string(row.column) +
                                                " = 5 WHERE address = '" + address + "'"),
                Lines{"handler-differs rebuild " + address + ' ' + row.column + ": " + row.value + " > 5"});
        EXPECT_EQ(
            found_after(handlers_store, "UPDATE handlers SET enabled = 0 WHERE address = '" + address + "'"),
            Lines{"handler-disabled rebuild " + address + " enabled: 1 > 0"});
    }
}

struct ChangeRow {
    std::string store;
    std::string sql;
    Lines found;
};

const std::vector<ChangeRow> change_rows = {
    {responder_store,
     "DELETE FROM autoresponder WHERE mn = 'info@a.test'",
     {"reply-missing rebuild info@a.test"}},
    {responder_store,
     "DELETE FROM autoresponder WHERE mn = 'info@b.test'",
     {"alias-reply-missing rebuild info@b.test"}},
    {responder_store, "INSERT INTO autoresponder (mn) VALUES ('x@a.test')", {"reply-stale rebuild x@a.test"}},
    {responder_store, "INSERT INTO autoresponder (mn) VALUES ('')", {"reply-stale rebuild"}},
    {responder_store,
     "UPDATE autoresponder SET mn = 'Info@a.test' WHERE mn = 'info@a.test'",
     {"reply-missing rebuild info@a.test", "reply-stale rebuild Info@a.test"}},
    {responder_store,
     "DELETE FROM attachments WHERE mn = 'info@a.test' AND filename = 'one.pdf'",
     {"attachment-missing rebuild info@a.test: one.pdf > "}},
    {responder_store,
     "INSERT INTO attachments VALUES ('info@b.test', 'three.pdf')",
     {"attachment-stale rebuild info@b.test:  > three.pdf"}},
    {responder_store,
     "UPDATE attachments SET mn = 'x@a.test' WHERE mn = 'info@a.test' AND filename = 'one.pdf'",
     {"attachment-missing rebuild info@a.test: one.pdf > ", "attachment-stale rebuild x@a.test:  > one.pdf"}},
    {responder_store, "DELETE FROM extra_headers WHERE name = 'X-A'", {"header-missing rebuild X-A: 1 > "}},
    {responder_store,
     "UPDATE extra_headers SET value = '3' WHERE name = 'X-A'",
     {"header-differs rebuild X-A value: 1 > 3"}},
    {responder_store, "INSERT INTO extra_headers VALUES ('X-C', '3')", {"header-stale rebuild X-C:  > 3"}},
    {responder_store,
     "UPDATE extra_headers SET name = 'x-a' WHERE name = 'X-A'",
     {"header-missing rebuild X-A: 1 > ", "header-stale rebuild x-a:  > 1"}},
    {handlers_store,
     "DELETE FROM handlers WHERE address = 'info@a.test'",
     {"handler-missing rebuild info@a.test"}},
    {handlers_store,
     "DELETE FROM handlers WHERE address = 'info@b.test'",
     {"alias-handler-missing rebuild info@b.test"}},
    {handlers_store,
     "UPDATE handlers SET name = 'other' WHERE address = 'info@a.test'",
     {"handler-missing rebuild info@a.test"}},
    {handlers_store,
     "UPDATE handlers SET queue = 3 WHERE address = 'info@a.test'",
     {"handler-missing rebuild info@a.test", "handler-stale manual info@a.test queue: 2 > 3"}},
    {handlers_store,
     "UPDATE handlers SET type = 3 WHERE address = 'info@a.test'",
     {"handler-missing rebuild info@a.test", "handler-stale manual info@a.test type: 1 > 3"}},
    {handlers_store,
     "UPDATE handlers SET address = 'x@a.test' WHERE address = 'info@a.test'",
     {"handler-missing rebuild info@a.test", "handler-stale manual x@a.test"}},
    {handlers_store,
     "INSERT INTO handlers VALUES (2, 1, 1, 90, 'autoresponder', 'x@gone.test', '/x', 'c', 0)",
     {"handler-stale manual x@gone.test"}},
    {handlers_store, "INSERT INTO handlers VALUES (2, 1, 1, 90, 'other', 'x@a.test', '/x', 'c', 0)", {}},
};

TEST_F(ChangeTest, EachRowRemovedAddedOrMovedIsFound)
{
    for (const ChangeRow &row : change_rows)
        EXPECT_EQ(found_after(row.store, row.sql), row.found) << row.sql;
}

/* The keys of the responder store are its creator's business. */
TEST_F(ChangeTest, TablesOfOtherKeysAreReadAsWell)
{
    const std::string plain =
        "CREATE TABLE a AS SELECT * FROM autoresponder; DROP TABLE autoresponder; ALTER TABLE a RENAME TO "
        "autoresponder; CREATE TABLE b AS SELECT * FROM attachments; DROP TABLE attachments; ALTER TABLE b "
        "RENAME TO "
        "attachments; ";
    const std::string without_rowid =
        "CREATE TABLE a (mn TEXT PRIMARY KEY, keystr, key_where, subject, reply_to, forward_to, "
        "content_type, charset, "
        "body, ans_freq, ans_limit, real_owner) WITHOUT ROWID; INSERT INTO a SELECT * FROM autoresponder; "
        "DROP TABLE autoresponder; ALTER TABLE a RENAME TO autoresponder; ";

    for (const std::string &change : {plain, without_rowid}) {
        EXPECT_EQ(found_after(responder_store, change), Lines{});
        EXPECT_EQ(found_after(responder_store,
                              change + "UPDATE autoresponder SET mn = 'x@a.test' WHERE mn LIKE '%a.test'"),
                  (Lines{"reply-missing rebuild info@a.test", "reply-stale rebuild x@a.test"}));
    }
    /* As each copy to an alias leaves them there. */
    const std::string twice = plain + "INSERT INTO autoresponder SELECT * FROM autoresponder; "
                                      "INSERT INTO attachments SELECT * FROM attachments; ";

    EXPECT_EQ(found_after(responder_store, twice), Lines{});
    EXPECT_EQ(found_after(responder_store,
                          twice + "UPDATE autoresponder SET body = 'x' WHERE rowid = (SELECT max(rowid) FROM "
                                  "autoresponder WHERE mn = 'info@a.test')"),
              Lines{"reply-differs rebuild info@a.test body: Back soon. > x"});
}

struct OwnerRow {
    const std::string &store;
    bool popuser;
    mode_t mode;
    int troubles;
};

const OwnerRow owner_rows[] = {
    {handlers_store, true, 0640, 0},   {handlers_store, true, 0644, 1},  {handlers_store, true, 0600, 1},
    {handlers_store, false, 0640, 1},  {handlers_store, false, 0600, 2}, {responder_store, false, 0644, 0},
    {responder_store, false, 0640, 1}, {responder_store, true, 0640, 0}, {responder_store, true, 0600, 1},
    {responder_store, true, 0604, 1},
};

TEST_F(ChangeTest, OwnerAndModeAreTrouble)
{
    const gid_t mail_gid = ::getgrnam("popuser")->gr_gid;

    if (mail_gid == 0)
        GTEST_SKIP() << "here popuser is root's group";
    for (const OwnerRow &row : owner_rows) {
        const std::string other = row.store == handlers_store ? responder_store : handlers_store;

        EXPECT_EQ(::chown(row.store.c_str(), 0, row.popuser ? mail_gid : 0), 0);
        EXPECT_EQ(::chmod(row.store.c_str(), row.mode), 0);

        const Look seen = look();
        char mode[16];

        (void)std::snprintf(mode, sizeof mode, "mode %04o", row.mode);
        EXPECT_EQ(seen.troubles.size(), static_cast<std::size_t>(row.troubles))
            << row.store << ' ' << row.popuser << ' ' << row.mode << ::testing::PrintToString(seen.troubles);
        EXPECT_EQ(seen.status, row.troubles > 0 ? 2 : 0);
        EXPECT_EQ(seen.findings, Lines{});
        for (const std::string &trouble : seen.troubles) {
            EXPECT_NE(trouble.find(row.store), std::string::npos) << trouble;
            EXPECT_EQ(trouble.find("mode "), trouble.find(mode)) << trouble;
            run_shell(trouble.substr(trouble.rfind(": ") + 2));
        }
        EXPECT_EQ(look().status, 0);
    }
}

TEST_F(ChangeTest, WithDomainsGivenOnlyTheseAreLookedAt)
{
    VerifyOptions options;

    panel->execute(sql_domain(2, "b\xc3\xbc"
                                 "cher.example") +
                   sql_answering(2, 2, "x"));
    change_store(responder_store,
                 "UPDATE autoresponder SET subject = 'x'; INSERT INTO autoresponder (mn) VALUES "
                 "('y@b.test'), ('y@elsewhere.test'); DELETE FROM extra_headers");
    options.domains = {"A.test"};
    EXPECT_EQ(look(options).findings,
              (Lines{"reply-differs rebuild info@a.test subject: Away > x",
                     "reply-differs rebuild info@b.test subject: Away > x", "reply-stale rebuild y@b.test"}));
    for (const char *name : {"b\xc3\xbc"
                             "cher.example",
                             "xn--bcher-kva.example"}) {
        options.domains = {name};
        EXPECT_EQ(look(options).findings, (Lines{"handler-missing rebuild x@xn--bcher-kva.example",
                                                 "reply-missing rebuild x@b\xc3\xbc"
                                                 "cher.example"}));
    }
    options.domains = {"a.test", "b.test"};

    const Look seen = look(options);

    EXPECT_EQ(seen.status, 2);
    EXPECT_EQ(seen.troubles, Lines{"the panel has no domain b.test with mail service"});
    EXPECT_EQ(seen.findings, Lines{});

    /* A name of two domains belongs to either. */
    panel->execute(sql_domain(3, "c.test") + sql_alias(1, "c.test"));
    change_store(responder_store, "INSERT INTO autoresponder (mn) VALUES ('stale@c.test')");
    options.domains = {"c.test"};
    EXPECT_EQ(look(options).findings, Lines{"reply-stale rebuild stale@c.test"});

    /* Its own mailboxes are none of the other's, and none that nobody wants. */
    panel->execute(sql_answering(3, 3, "bob"));
    EXPECT_EQ(rebuild().status, 0);
    options.domains = {"a.test"};
    EXPECT_EQ(look(options).findings, Lines{});
    EXPECT_EQ(look(options).summary.domains, 1u);
    EXPECT_EQ(look(options).summary.mailboxes, 1u);
}

/* A rebuild copies what stands at every longer name of the domain to its aliases, wanted or not. */
TEST_F(ChangeTest, AHandlerThatSpoilsAnAliasesIsBehindWhatIsWrongThere)
{
    change_store(handlers_store,
                 "INSERT INTO handlers VALUES (2, 1, 0, 90, 'autoresponder', 'Info@sub.a.test', "
                 "'/opt/qsx/handlers/hooks/autoresponder', 'responder', 0)");
    EXPECT_EQ(rebuild().status, 0);

    const Look seen = look();

    EXPECT_EQ(seen.findings, (Lines{"handler-disabled manual info@b.test enabled: 1 > 0",
                                    "handler-stale manual Info@sub.a.test"}));
    ASSERT_EQ(seen.commands.size(), 1u);
    run_shell(seen.commands[0]);
    EXPECT_EQ(rebuild().status, 0);
    EXPECT_EQ(look().status, 0);

    /* One of another queue is copied beside it, and one that is as it should be mends it. */
    change_store(
        handlers_store,
        "INSERT INTO handlers VALUES (3, 1, 0, 90, 'autoresponder', 'info@sub.a.test', 'x', 'c', 0), "
        "(2, 1, 1, 90, 'autoresponder', 'info@sub.a.test', "
        "'/opt/qsx/handlers/hooks/autoresponder', 'responder', 0); "
        "UPDATE handlers SET enabled = 0 WHERE address = 'info@b.test'");
    EXPECT_TRUE(look().has("handler-disabled rebuild info@b.test"));
}

TEST_F(ChangeTest, TheCommandOfAStaleHandlerDeletesExactlyIt)
{
    const std::vector<std::string> before = handler_rows();

    for (const std::string key : {"2, 1, 'x@gone.test'", "2, 1, x'784067'", "3, 1, 'info@a.test'",
                                  "'two', 1, 'it''s \"$(x)@a.test'"}) {
        const std::size_t address = key.rfind(", ") + 2;

        change_store(handlers_store, "INSERT INTO handlers VALUES (" + key.substr(0, address) +
                                         "1, 90, 'autoresponder', " + key.substr(address) +
                                         ", '/x', 'c', 0)");

        const Look seen = look();

        ASSERT_EQ(seen.commands.size(), 1u) << key;
        run_shell(seen.commands[0]);
        EXPECT_EQ(handler_rows(), before) << seen.commands[0];
    }
}

/* They are asked for by 256. */
TEST_F(ChangeTest, EachOfManyDomainsIsJudgedOnce)
{
    panel->execute(sql_many_domains(258));

    const Look seen = look();

    EXPECT_EQ(seen.summary.domains, 259U);
    EXPECT_EQ(seen.summary.mailboxes, 259U);
    EXPECT_EQ(seen.codes(), (Lines{"handler-missing", "reply-missing"}));
    EXPECT_EQ(seen.findings.size(), 2 * 258U);
}

/* Steps of SQLite left until one fails. */
int steps_to_failure = 0;

TEST_F(ChangeTest, NoStepOfSqliteThatFailsBecomesAFinding)
{
    int failures = 0;

    while (true) {
        steps_to_failure = failures + 1;

        const Look seen = look();

        EXPECT_EQ(seen.findings, Lines{}) << "step " << failures + 1;
        if (steps_to_failure > 0)
            break;
        failures++;
        EXPECT_EQ(seen.status, 2) << "step " << failures;
        EXPECT_EQ(seen.troubles.size(), 1u) << "step " << failures << ::testing::PrintToString(seen.troubles);
    }
    steps_to_failure = 0;
    EXPECT_GT(failures, 20);
}

/* A consumer that runs out of memory in the middle of the look. */
TEST_F(ChangeTest, MemoryThatRunsOutIsTroubleAndEndsTheTransaction)
{
    char reason[4097] = "";
    const PanelConnection connection(panel_db_connect_ex(reason, sizeof reason));
    VerifySink sink;
    VerifySummary summary;

    sink.progress = [](unsigned long, unsigned long) {
        throw std::bad_alloc();
    };
    ASSERT_NE(connection, nullptr) << reason;
    EXPECT_EQ(verify_stores(connection.get(), {}, sink, &summary), 2);
    EXPECT_EQ(summary.troubles, 1u);

    const PanelResult result(panel_select(connection.get(), "SELECT @@in_transaction", 23));

    ASSERT_NE(result, nullptr);
    EXPECT_STREQ(mysql_fetch_row(result.get())[0], "0");
}

TEST_F(ChangeTest, MissingGroupOfTheMailServerIsToldOnce)
{
    const TempDir folder;

    ASSERT_EQ(::mount(folder.write("group", "root:x:0:\n").c_str(), "/etc/group", nullptr, MS_BIND, nullptr),
              0);

    const Look seen = look();

    EXPECT_EQ(::umount2("/etc/group", MNT_DETACH), 0);
    EXPECT_EQ(seen.troubles, Lines{"there is no group popuser, by which the mail server reads the stores"});
}

} // namespace

extern "C" int __real_sqlite3_step(sqlite3_stmt *statement);

extern "C" int __wrap_sqlite3_step(sqlite3_stmt *statement)
{
    return steps_to_failure > 0 && --steps_to_failure == 0 ? SQLITE_IOERR : __real_sqlite3_step(statement);
}

} // namespace kolmo
