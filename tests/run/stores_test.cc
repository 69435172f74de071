/*
 * Stores that are locked, broken or full.
 */
#include "tests/run/run_fixture.h"

#include <filesystem>
#include <thread>

#include "tests/support/killed_writer.h"

namespace kolmo::testing
{

namespace
{

const std::string insert_reply =
    "REPLACE INTO autoresponder (keystr, key_where, subject, reply_to, forward_to, "
    "content_type, charset, body, ans_freq, ans_limit, real_owner, mn) VALUES (?, ?, "
    "?, ?, ?, ?, ?, ?, ?, ?, ?, ?  );";
const std::string insert_handler =
    "INSERT OR REPLACE INTO handlers(priority, name, type, address, queue, "
    "executable, context, protected, enabled) VALUES(?, ?, ?, LOWER(?), ?, ?, ?, ?, "
    "?)";
const std::string select_handlers =
    "SELECT priority, type, queue, name, executable, context, enabled, address "
    "FROM handlers WHERE address LIKE '%' || ? || '%'";

const Said sync_failed = logged("Unable to sync configuration of autoresponder for domain one.example");
const Said registration_failed = logged("Unable to reconfigure autoresponder for domain one.example");
const Said alias_sync_failed = logged("Unable to sync configuration for domain alias one.alias");

Said not_prepared(const std::string &sql, const std::string &detail)
{
    return logged("Unable to prepare SQL statement for query '" + sql + "': " + detail);
}

/* Makes a store refuse new rows of a table that fit the condition. */
std::string refusal(const std::string &table, const std::string &condition)
{
    return "CREATE TRIGGER refuse_" + table + " BEFORE INSERT ON " + table + " WHEN " + condition +
           " BEGIN SELECT RAISE(ABORT, 'refused'); END;";
}

class StoresRun : public RunTest
{
protected:
    /* The store that the run fills is this one and not one that the utility makes. */
    static void keep_store_of_test()
    {
        make_responder_store();
        write_utility("exit 0");
    }

    /* One domain with everything: a mailbox with an attachment, an alias, a header. */
    void add_everything()
    {
        const int domain = panel->add_domain("one.example");

        panel->add_attachment(panel->add_mailbox_with_responder(domain, "info"), "map.png");
        panel->add_alias(domain, "one.alias");
        panel->set_reply_headers("{\"X-One\": \"1\"}");
    }

    void expect_everything()
    {
        expect_responders({reply_row("info@one.example"), reply_row("info@one.alias", {}, "info@one.example"),
                           attachment_row("info@one.example", "map.png"),
                           attachment_row("info@one.alias", "map.png"), header_row("X-One", "1")});
        expect_handlers({handler_row("info@one.example"), handler_row("info@one.alias")});
    }

    void expect_run_waits_for(StoreLock::Kind kind, std::chrono::milliseconds length)
    {
        keep_store_of_test();
        add_everything();

        StoreLock lock(kind);
        const auto program = start();

        std::this_thread::sleep_for(length);
        EXPECT_TRUE(program->is_running());
        lock.release();

        const ProgramResult result = program->finish();

        EXPECT_GE(result.duration, length);
        expect_result(result, 0);
        expect_everything();
    }
};

} // namespace

/* --- locked ------------------------------------------------------------------------------------------- */

TEST_F(StoresRun, BriefLockOnBothStoresIsWaitedFor)
{
    expect_run_waits_for(StoreLock::Kind::exclusive, std::chrono::milliseconds(300));
}

TEST_F(StoresRun, LockFarBeyondTheBusyTimeoutIsWaitedFor)
{
    expect_run_waits_for(StoreLock::Kind::exclusive, std::chrono::milliseconds(3000));
}

TEST_F(StoresRun, ReaderInBothStoresIsWaitedFor)
{
    expect_run_waits_for(StoreLock::Kind::reader, std::chrono::milliseconds(300));
}

/* --- left behind by a run that was killed ------------------------------------------------------------- */

TEST_F(StoresRun, JournalsOfAKilledWriterAreRolledBack)
{
    const std::string kept_handler = add_foreign_handler("kept@one.example");
    const std::string kept_file = attachment_row("kept@one.example", "kept.txt");

    keep_store_of_test();
    change_store(responder_store, "INSERT INTO attachments VALUES ('kept@one.example', 'kept.txt')");
    (void)add_simple_domain("one.example");
    kill_writer(handlers_store, "DELETE FROM handlers");
    kill_writer(responder_store, "DELETE FROM attachments");

    expect_run(0);
    expect_handlers({kept_handler, handler_row("info@one.example")});
    expect_responders({kept_file, reply_row("info@one.example")});
}

/* --- the responder store broken ----------------------------------------------------------------------- */

TEST_F(StoresRun, FolderInTheResponderStoresPlaceEndsTheRun)
{
    (void)add_simple_domain("one.example");
    std::filesystem::create_directory(responder_store);
    std::filesystem::remove(shadow_path); /* the panel's database is not asked before */
    write_utility("exit 0");

    expect_run(255,
               {logged("Unable to open database " + responder_store + ": unable to open database file")});
    expect_handlers({});
}

TEST_F(StoresRun, MissingFolderOfTheResponderStoreEndsTheRun)
{
    std::filesystem::remove(std::filesystem::path(responder_store).parent_path());
    write_utility("exit 0");

    expect_run(255,
               {logged("Unable to open database " + responder_store + ": unable to open database file")});
}

TEST_F(StoresRun, GarbageInTheResponderStoresPlaceFailsTheFirstDomain)
{
    (void)add_simple_domain("one.example");
    write_utility("exit 0");
    write_file(responder_store,
               "This is no database, but a letter of some length to the one who reads it.\n");

    expect_run(1, {not_prepared(insert_reply, "file is not a database"), sync_failed});
    expect_handlers({handler_row("info@one.example")});
}

TEST_F(StoresRun, ResponderStoreWithoutTablesFailsTheFirstDomain)
{
    (void)add_simple_domain("one.example");
    (void)add_simple_domain("two.example");
    panel->set_reply_headers("{\"X-One\": \"1\"}");
    write_utility("rm -f " + responder_store);

    expect_run(1, {not_prepared(insert_reply, "no such table: autoresponder"), sync_failed});
    expect_handlers({handler_row("info@one.example")});
}

TEST_F(StoresRun, MissingAttachmentsTableFailsTheDomainAfterItsReply)
{
    add_everything();
    write_utility(stand_in + "; sqlite3 " + responder_store + " 'DROP TABLE attachments'");

    expect_run(1, {not_prepared("REPLACE INTO attachments VALUES (?, ?  );", "no such table: attachments"),
                   sync_failed});
    EXPECT_EQ(query_store(responder_store, "SELECT mn FROM autoresponder"),
              std::vector<std::string>{"info@one.example"});
}

TEST_F(StoresRun, MissingHeadersTableEndsTheRunAfterTheDomains)
{
    add_everything();
    write_utility(stand_in + "; sqlite3 " + responder_store + " 'DROP TABLE extra_headers'");

    expect_run(255,
               {not_prepared("REPLACE INTO extra_headers VALUES (?, ?  );", "no such table: extra_headers")});
    EXPECT_EQ(query_store(responder_store, "SELECT count(*) FROM autoresponder"),
              std::vector<std::string>{"2"});
}

TEST_F(StoresRun, ReadOnlyResponderStoreFailsTheFirstDomain)
{
    (void)add_simple_domain("one.example");
    write_utility(stand_in + " && sqlite3 " + responder_store +
                  " 'PRAGMA user_version = 1' && printf '\\003' | dd of=" + responder_store +
                  " bs=1 seek=18 conv=notrunc 2>/dev/null"); /* a write version of the future */

    expect_run(1,
               {logged("Unable to add/update autoresponder (info@one.example): attempt to write a readonly "
                       "database"),
                sync_failed});
}

TEST_F(StoresRun, RefusedReplyStopsTheDomainAndKeepsTheOnesBefore)
{
    const int domain = panel->add_domain("one.example");

    for (const char *name : {"first", "second", "third"})
        (void)panel->add_mailbox_with_responder(domain, name);
    keep_store_of_test();
    change_store(responder_store, refusal("autoresponder", "NEW.mn LIKE 'second@%'"));

    expect_run(1, {logged("Unable to add/update autoresponder (second@one.example): refused"), sync_failed});
    expect_responders({reply_row("first@one.example")});
}

TEST_F(StoresRun, RefusedAttachmentIsReportedAndTheOthersAreWritten)
{
    const int responder = panel->add_mailbox_with_responder(panel->add_domain("one.example"), "info");

    for (const char *name : {"a.txt", "b.txt", "c.txt"})
        panel->add_attachment(responder, name);
    keep_store_of_test();
    change_store(responder_store, refusal("attachments", "NEW.filename = 'b.txt'"));

    expect_run(0, {logged("Unable to add autoresponder attachment (info@one.example): refused")});
    expect_responders({reply_row("info@one.example"), attachment_row("info@one.example", "a.txt"),
                       attachment_row("info@one.example", "c.txt")});
}

TEST_F(StoresRun, RefusedHeaderIsReportedWithoutItsNameAndTheOthersAreWritten)
{
    panel->set_reply_headers("{\"X-A\": \"1\", \"X-B\": \"2\", \"X-C\": \"3\"}");
    keep_store_of_test();
    change_store(responder_store, refusal("extra_headers", "NEW.name = 'X-B'"));

    expect_run(0, {logged("Unable to add autoresponder extra headers: refused")});
    expect_responders({header_row("X-A", "1"), header_row("X-C", "3")});
}

/* The text fits into memory, and the file has no room for it when the transaction ends. */
TEST_F(StoresRun, FullDiskAtTheEndOfATransactionFailsTheDomain)
{
    const int domain = panel->add_domain("one.example");

    (void)panel->add_mailbox_with_responder(domain, "first");
    (void)panel->add_mailbox_with_responder(domain, "second", {.text = std::string(200000, 'x')});

    expect_result(run({.file_size = 65536}), 1,
                  {logged("Unable to end sqlite transaction: disk I/O error"), sync_failed});
    expect_responders({reply_row("first@one.example")});
}

/* --- the handlers store broken ------------------------------------------------------------------------ */

TEST_F(StoresRun, MissingHandlersStoreIsCreatedWithoutATableAndFailsTheDomain)
{
    (void)add_simple_domain("one.example");
    std::filesystem::remove(handlers_store);

    expect_run(1, {not_prepared(insert_handler, "no such table: handlers"), registration_failed});
    EXPECT_TRUE(std::filesystem::exists(handlers_store));
    expect_responders({});
}

TEST_F(StoresRun, MissingHandlersTableIsReportedOnceAndNotForEachMailbox)
{
    const int domain = panel->add_domain("one.example");

    (void)panel->add_mailbox_with_responder(domain, "first");
    (void)panel->add_mailbox_with_responder(domain, "second");
    change_store(handlers_store, "DROP TABLE handlers");

    expect_run(1, {not_prepared(insert_handler, "no such table: handlers"), registration_failed});
}

TEST_F(StoresRun, FolderInTheHandlersStoresPlaceFailsTheDomain)
{
    (void)add_simple_domain("one.example");
    std::filesystem::remove(handlers_store);
    std::filesystem::create_directory(handlers_store);

    expect_run(1, {logged("Unable to open database " + handlers_store + ": unable to open database file"),
                   registration_failed});
    expect_responders({});
}

TEST_F(StoresRun, GarbageInTheHandlersStoresPlaceFailsTheDomain)
{
    (void)add_simple_domain("one.example");
    write_file(handlers_store, "This is no database, but a letter of some length to the one who reads it.\n");

    expect_run(1, {not_prepared(insert_handler, "file is not a database"), registration_failed});
    expect_responders({});
}

TEST_F(StoresRun, RefusedHandlerIsReportedAndTheOthersAreRegistered)
{
    const int domain = panel->add_domain("one.example");

    for (const char *name : {"first", "second", "third"})
        (void)panel->add_mailbox_with_responder(domain, name);
    change_store(handlers_store, refusal("handlers", "NEW.address LIKE 'second@%'"));

    expect_run(0, {logged("Unable to execute insert record into handlers database: refused")});
    expect_handlers({handler_row("first@one.example"), handler_row("third@one.example")});
    expect_responders(
        {reply_row("first@one.example"), reply_row("second@one.example"), reply_row("third@one.example")});
}

TEST_F(StoresRun, FullDiskAtTheEndOfARegistrationRegistersNothing)
{
    panel->execute(
        "INSERT INTO domains VALUES (1, 'one.example'); INSERT INTO DomainServices VALUES (1, 'mail'); "
        "INSERT INTO mail SELECT seq, 1, CONCAT(REPEAT('x', 200), seq), 'true' FROM seq_1_to_200");

    expect_result(run({.file_size = 65536}), 1,
                  {logged("Unable to end sqlite transaction: disk I/O error"), registration_failed});
    expect_handlers({});
    expect_responders({});
}

/* --- copies for an alias ------------------------------------------------------------------------------ */

TEST_F(StoresRun, HandlersThatCannotBeCopiedFailTheAlias)
{
    panel->add_alias(panel->add_domain("one.example"), "one.alias");
    change_store(handlers_store, "DROP TABLE handlers");

    expect_run(1, {not_prepared(select_handlers, "no such table: handlers"),
                   logged("Unable to set mail handlers for domain alias one.alias")});
}

TEST_F(StoresRun, FullDiskAtTheEndOfACopyOfHandlersFailsTheAlias)
{
    for (int i = 0; i < 60; i++)
        (void)add_foreign_handler(std::string(300, 'x') + std::to_string(i) + "@one.example");
    panel->add_alias(panel->add_domain("one.example"), "one.alias");

    const auto before = handler_rows();

    expect_result(run({.file_size = std::filesystem::file_size(handlers_store)}), 1,
                  {logged("Unable to end sqlite transaction: disk I/O error"),
                   logged("Unable to add records into handlers database"),
                   logged("Unable to set mail handlers for domain alias one.alias")});
    expect_handlers(before);
}

/* Handlers come first: what was registered for the alias stays. */
TEST_F(StoresRun, RefusedCopyOfRepliesLeavesTheAliasNeitherOfBoth)
{
    add_everything();
    keep_store_of_test();
    change_store(responder_store, refusal("autoresponder", "NEW.mn LIKE '%@one.alias'"));

    expect_run(1, {logged("Unable to exec query1: refused"), alias_sync_failed});
    expect_responders({reply_row("info@one.example"), attachment_row("info@one.example", "map.png")});
    expect_handlers({handler_row("info@one.example"), handler_row("info@one.alias")});
}

TEST_F(StoresRun, RefusedCopyOfAttachmentsTakesTheCopiedRepliesBack)
{
    add_everything();
    keep_store_of_test();
    change_store(responder_store, refusal("attachments", "NEW.mn LIKE '%@one.alias'"));

    expect_run(1, {logged("Unable to exec query2: refused"), alias_sync_failed});
    expect_responders({reply_row("info@one.example"), attachment_row("info@one.example", "map.png")});
}

TEST_F(StoresRun, CopyWithoutATableFailsTheAliasAndTheAliasesBehindIt)
{
    const int domain = panel->add_domain("one.example");

    panel->add_alias(domain, "one.alias");
    panel->add_alias(domain, "two.alias");
    panel->set_reply_headers("{\"X-One\": \"1\"}");
    (void)add_foreign_handler("info@one.example");
    keep_store_of_test();
    change_store(responder_store, "DROP TABLE attachments");

    expect_run(1, {not_prepared("REPLACE INTO attachments SELECT replace(mn, '@one.example', '@one.alias'), "
                                "filename FROM attachments;",
                                "no such table: attachments"),
                   alias_sync_failed});
    EXPECT_EQ(query_store(handlers_store, "SELECT address FROM handlers ORDER BY address"),
              (std::vector<std::string>{"info@one.alias", "info@one.example"}));
    EXPECT_EQ(query_store(responder_store, "SELECT * FROM extra_headers"), std::vector<std::string>{});
}

TEST_F(StoresRun, FullDiskAtTheEndOfACopyOfRepliesFailsTheAlias)
{
    panel->add_alias(panel->add_domain("one.example"), "one.alias");
    (void)panel->add_mailbox_with_responder(1, "info", {.text = std::string(40000, 'x')});

    expect_result(run({.file_size = 81920}), 1,
                  {logged("Unable to end sqlite transaction: disk I/O error"), alias_sync_failed});
    expect_responders({reply_row("info@one.example", {.text = std::string(40000, 'x')})});
    expect_handlers({handler_row("info@one.example"), handler_row("info@one.alias")});
}

} // namespace kolmo::testing
