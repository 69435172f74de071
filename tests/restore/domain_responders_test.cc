#include "restore/domain_responders.h"

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "handlers_store/handlers_db.h"
#include "tests/restore/panel_watch.h"
#include "tests/restore/restore_fixture.h"
#include "tests/support/alloc_faults.h"
#include "tests/support/sqlite_faults.h"

namespace kolmo::testing
{

namespace
{

const std::string names_head =
    "SELECT group_concat(mail_name SEPARATOR ','), group_concat(id SEPARATOR ',') FROM mail  WHERE dom_id=";
const std::string names_tail = " AND autoresponder='true'";

const std::string responders_head =
    "SELECT mail_resp.id, mail_resp.mn_id, mail_resp.resp_name, mail_resp.keystr,mail_resp.key_where, "
    "mail_resp.subject, mail_resp.reply_to, mail_resp.content_type, mail_resp.charset, mail_resp.text, "
    "mail_resp.resp_on, mail_resp.ans_freq, mail_resp.mem_limit, resp_forward.address, mail.mail_name FROM "
    "mail_resp LEFT JOIN resp_forward ON resp_forward.rn_id=mail_resp.id LEFT JOIN mail ON "
    "mail_resp.mn_id=mail.id WHERE mail_resp.resp_name='default' AND mail_resp.mn_id IN (";

std::string responders_query(const std::string &ids)
{
    return responders_head + ids + ')';
}

std::string attachments_query(int responder)
{
    return "SELECT filename FROM resp_attach WHERE rn_id=" + std::to_string(responder);
}

const std::string missing_default = "3 Unable to restore autoresponder for '";

std::string missing_line(const std::string &address, const std::string &id)
{
    return missing_default + address + "': check if you have record in table 'mail_resp' with mn_id=" + id +
           " and resp_name='default' and corresponding records in tables 'mail' and 'resp_forward'";
}

const std::string cannot_reconfigure = "3 Unable to reconfigure autoresponder for domain one.example";
const std::string cannot_sync = "3 Unable to sync configuration of autoresponder for domain one.example";

class DomainRespondersTest : public RestoreTest
{
protected:
    [[nodiscard]] Lines written() const { return store.query("SELECT mn FROM autoresponder ORDER BY rowid"); }

    /* A mailbox's only responder, one.example's, in the panel; its id is the mailbox's. */
    void add_mailbox(const std::string &name)
    {
        const int mailbox = panel.add_mailbox(1, name);

        EXPECT_EQ(panel.add_responder(mailbox), mailbox);
    }
};

/* --- restore_domain_responders ------------------------------------------------------------------------- */

class RestoreDomainResponders : public DomainRespondersTest
{
protected:
    static int restore() { return restore_domain_responders("1", "one.example"); }
};

TEST_F(RestoreDomainResponders, RepliesAreWrittenOverTheRunsOwnConnection)
{
    add_mailbox("info");
    const SqliteFaults sqlite;

    EXPECT_EQ(restore(), 0);
    EXPECT_EQ(sqlite.count("open"), 1);
    EXPECT_EQ(sqlite.count("open " + handlers.path()), 1);
    EXPECT_TRUE(responder_db.is_open());
}

TEST_F(RestoreDomainResponders, NoMailboxThatAnswersIsNoFailureAndNothingMoreIsAsked)
{
    panel.add_mailbox(1, "off", false);
    const PanelWatch watch;
    const SqliteFaults sqlite;

    EXPECT_EQ(restore(), 0);
    EXPECT_EQ(watch.queries.size(), 1U);
    EXPECT_EQ(sqlite.calls(), Lines{}); /* neither store is touched */
}

TEST_F(RestoreDomainResponders, EmptyListOfNamesIsPassedOver)
{
    add_mailbox("");
    const PanelWatch watch;
    const SqliteFaults sqlite;

    EXPECT_EQ(restore(), 0);
    EXPECT_EQ(watch.queries.size(), 1U);
    EXPECT_EQ(sqlite.calls(), Lines{});
}

/* The query may have 4095 characters. */
TEST_F(RestoreDomainResponders, IdThatTheQueryHasRoomForIsAsked)
{
    const std::string id = std::string(4095 - names_head.size() - names_tail.size() - 1, ' ') + '1';
    const PanelWatch watch;

    EXPECT_EQ(restore_domain_responders(id.c_str(), "one.example"), 0);
    EXPECT_EQ(watch.queries, Lines{names_head + id + names_tail});
}

TEST_F(RestoreDomainResponders, IdThatTheQueryHasNoRoomForIsReportedAndNothingAsked)
{
    const std::string id = std::string(4095 - names_head.size() - names_tail.size(), ' ') + '1';
    const PanelWatch watch;

    EXPECT_EQ(restore_domain_responders(id.c_str(), "one.example"), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to generate query for mail names/aliases");
    EXPECT_EQ(watch.queries, Lines{});
}

TEST_F(RestoreDomainResponders, ResultThatCannotBeFetchedIsReported)
{
    add_mailbox("info");
    PanelWatch watch;

    watch.lose_result(1);

    EXPECT_EQ(restore(), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to query mail names: ");
    EXPECT_EQ(handler_addresses(), Lines{});
}

/* The responder store must not even be asked about. */
TEST_F(RestoreDomainResponders, FailedRegistrationLeavesTheResponderStoreAlone)
{
    const std::string path = handlers.folder().path("missing/handlers.db");

    add_mailbox("info");
    handlers_db_set_path(path.c_str());
    int result;
    {
        const PanelWatch watch;

        result = restore();
        EXPECT_EQ(watch.queries.size(), 1U);
    }
    handlers_db_set_path(handlers.path().c_str());
    EXPECT_EQ(result, 1);
    EXPECT_EQ(log.take(), (Lines{"3 Unable to open database " + path + ": unable to open database file",
                                 cannot_reconfigure}));
    EXPECT_EQ(store.rows(), Lines{});
    EXPECT_TRUE(responder_db.is_open());
}

/* --- load_domain_responders ---------------------------------------------------------------------------- */

class LoadDomainResponders : public DomainRespondersTest
{
protected:
    static int load(const std::string &names, const std::string &ids)
    {
        return load_domain_responders(panel_db, &responder_db, names.c_str(), ids.c_str(), "one.example");
    }
};

TEST_F(LoadDomainResponders, GivenConnectionsAreUsedNotTheRuns)
{
    add_mailbox("info");
    MYSQL *const panel_connection = panel_db;
    StoreConnection connection = std::move(responder_db);

    panel_db = nullptr;

    const int result = load_domain_responders(panel_connection, &connection, "info", "1", "one.example");

    panel_db = panel_connection;
    EXPECT_EQ(result, 0);
    EXPECT_EQ(written(), Lines{"info@one.example"});
    EXPECT_TRUE(connection.is_open());
}

TEST_F(LoadDomainResponders, WalkFollowsTheNamesWhateverTheServersOrder)
{
    add_mailbox("anna");
    add_mailbox("info");
    add_mailbox("zoe");
    const PanelWatch watch;

    EXPECT_EQ(load("zoe,anna,info", "3,1,2"), 0);
    EXPECT_EQ(watch.queries, (Lines{responders_query("3,1,2"), attachments_query(3), attachments_query(1),
                                    attachments_query(2)}));
    EXPECT_EQ(written(), (Lines{"zoe@one.example", "anna@one.example", "info@one.example"}));
}

/* Then the owner has no name. */
TEST_F(LoadDomainResponders, ReplyWhoseMailboxIsGoneIsWritten)
{
    panel.add_responder(7);

    EXPECT_EQ(load("info", "7"), 0);
    EXPECT_EQ(store.query("SELECT mn, real_owner FROM autoresponder"),
              Lines{"info@one.example|@one.example"});
}

TEST_F(LoadDomainResponders, IdWithoutANameIsNotLookedAt)
{
    add_mailbox("a");

    EXPECT_EQ(load("a", "1,2"), 0);
    EXPECT_EQ(written(), Lines{"a@one.example"});
}

TEST_F(LoadDomainResponders, IdsAreReadAsNumbersAndCutToThirtyTwoBits)
{
    add_mailbox("a");

    EXPECT_EQ(load("a,b,c", "4294967297,01, 1"), 0);
    EXPECT_EQ(written(), (Lines{"a@one.example", "b@one.example", "c@one.example"}));
}

/* A zero in front makes no octal number of it. */
TEST_F(LoadDomainResponders, IdWithALeadingZeroIsDecimalStill)
{
    EXPECT_EQ(load("a", "010"), -1);
    EXPECT_EQ(log.take_one(), missing_line("a@one.example", "10"));
}

TEST_F(LoadDomainResponders, CutIdIsTheOneOfTheMessage)
{
    EXPECT_EQ(load("a", "4294967295"), -1);
    EXPECT_EQ(log.take_one(), missing_line("a@one.example", "-1"));
}

TEST_F(LoadDomainResponders, ResultThatCannotBeFetchedIsReported)
{
    add_mailbox("info");
    PanelWatch watch;

    watch.lose_result(1);

    EXPECT_EQ(load("info", "1"), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to query autoresponders: ");
    EXPECT_EQ(store.rows(), Lines{});
}

TEST_F(LoadDomainResponders, QueryOf4095CharactersIsSentWhole)
{
    const std::string ids = '1' + std::string(4095 - responders_query("1").size(), ' ');
    add_mailbox("info");
    const PanelWatch watch;

    EXPECT_EQ(load("info", ids), 0);
    EXPECT_EQ(watch.queries.front(), responders_query(ids));
}

/* What is missing is the closing parenthesis, and the server says so. */
TEST_F(LoadDomainResponders, LongerQueryIsSentAsCutAndTheServersComplaintReported)
{
    const std::string ids = '1' + std::string(4096 - responders_query("1").size(), ' ');
    add_mailbox("info");
    const PanelWatch watch;

    EXPECT_EQ(load("info", ids), -1);
    EXPECT_EQ(watch.queries, Lines{responders_query(ids).substr(0, 4095)});
    EXPECT_EQ(
        log.take_one().rfind("3 Unable to query autoresponders: You have an error in your SQL syntax", 0),
        0U);
    EXPECT_EQ(store.rows(), Lines{});
}

TEST_F(LoadDomainResponders, RowsAreFreedBeforeTheFilesAreAskedFor)
{
    PanelWatch watch;
    std::vector<std::size_t> queries_before;

    add_mailbox("info");
    watch.queries.clear();
    watch.on_free = [&] {
        queries_before.push_back(watch.queries.size());
    };
    EXPECT_EQ(load("info", "1"), 0);
    EXPECT_EQ(queries_before, (std::vector<std::size_t>{1, 2}));
}

/* Rows that could not be copied or had no place, texts that could not be split: up to the first attachments.
 */
TEST_F(LoadDomainResponders, AllIsFreedBeforeMissingMemoryIsLogged)
{
    const std::string end = "3 Unable to allocate memory for responder attachments";
    std::string last;

    add_mailbox("info");
    add_mailbox("anna");
    for (int nth = 1; nth < 100 && last != end; nth++) {
        PanelWatch watch;
        int result;
        int results_freed = 0;
        int results_freed_before = 0;
        std::size_t held = 0;

        watch.on_free = [&] {
            results_freed++;
        };
        {
            const AllocFaults faults(nth);

            log.on_line = [&] {
                results_freed_before = results_freed;
                held = faults.held();
            };
            result = load("info,anna", "1,2");
        }
        EXPECT_EQ(result, -1);
        last = log.take().back();
        EXPECT_EQ(results_freed_before, 1) << last;
        EXPECT_TRUE(held == 0 || last == end) << last << ": " << held;
    }
    EXPECT_EQ(last, end);
}

/* One after the other: the first copies of the row, its place in the list, both splits, the attachments. */
TEST_F(LoadDomainResponders, EachAllocationThatFailsIsReported)
{
    const std::string system_error = "3 System error: Cannot allocate memory\n";
    const std::string not_added = "3 Unable to add string into array";
    const std::string no_names = "3 Unable to split mail names list: out of memory";
    const std::string no_ids = "3 Unable to split mail id's list: out of memory";
    std::vector<Lines> table(12, Lines{"3 Failed to store next autoresponder: out of memory"});

    table.push_back({"3 Failed to add next autoresponder to list: out of memory"});
    table.push_back({system_error, no_names});
    table.push_back({system_error, not_added, no_names});
    table.push_back({system_error, not_added, no_names});
    table.push_back({system_error, no_ids});
    table.push_back({system_error, not_added, no_ids});
    table.push_back({system_error, not_added, no_ids});
    table.push_back({"3 Unable to allocate memory for responder attachments"});
    add_mailbox("info");

    int nth = 0;

    for (const Lines &lines : table) {
        int result;
        {
            const AllocFaults faults(++nth);
            result = load_domain_responders(panel_db, &responder_db, "info", "1", "one.example");
        }
        EXPECT_EQ(result, -1) << nth;
        EXPECT_EQ(log.take(), lines) << nth;
        EXPECT_EQ(store.rows(), Lines{}) << nth;
    }
}

/* --- restore_responder_attachments --------------------------------------------------------------------- */

class RestoreResponderAttachments : public DomainRespondersTest
{
protected:
    int restore(StoreConnection *connection = &responder_db)
    {
        ResponderRecord record = sample_responder();

        record.id = 5;
        record.mn_id = 6;
        return restore_responder_attachments(panel_db, connection, "Box", "One.Example", &record);
    }

    /* Files of the responder 5: 0001, 0002, ... */
    void add_files(int count)
    {
        panel.execute("DELETE FROM resp_attach");
        if (count > 0)
            panel.execute("INSERT INTO resp_attach SELECT 5, LPAD(seq, 4, '0') FROM seq_1_to_" +
                          std::to_string(count));
    }

    [[nodiscard]] Lines files() const
    {
        return store.query("SELECT filename FROM attachments ORDER BY rowid");
    }

    int restore_without_memory(int nth)
    {
        const AllocFaults faults(nth);

        return restore();
    }
};

TEST_F(RestoreResponderAttachments, FilesComeInTheServersOrder)
{
    panel.execute("DROP TABLE resp_attach; CREATE TABLE resp_attach (rn_id INT, filename VARCHAR(255)) "
                  "ENGINE=MyISAM; INSERT INTO resp_attach VALUES (5, 'z'), (5, 'a'), (5, 'm')");

    EXPECT_EQ(restore(), 0);
    EXPECT_EQ(files(), (Lines{"z", "a", "m"}));
}

TEST_F(RestoreResponderAttachments, NullFileNameIsAnEmptyOne)
{
    panel.execute("DROP TABLE resp_attach; CREATE TABLE resp_attach (rn_id INT, filename VARCHAR(255)); "
                  "INSERT INTO resp_attach VALUES (5, NULL)");

    EXPECT_EQ(restore(), 0);
    EXPECT_EQ(files(), Lines{""});
}

TEST_F(RestoreResponderAttachments, EveryFileArrivesHoweverManyThereAre)
{
    for (const int count : {127, 128, 129, 255, 256, 257}) {
        add_files(count);
        store.execute("DELETE FROM attachments");

        EXPECT_EQ(restore(), 0) << count;

        const Lines found = files();

        ASSERT_EQ(found.size(), static_cast<std::size_t>(count));
        EXPECT_EQ(found.front(), "0001");
        EXPECT_EQ(found.back(), "0" + std::to_string(count));
    }
}

TEST_F(RestoreResponderAttachments, ServersRowsAreFreedBeforeTheStoreIsWritten)
{
    add_files(2);
    PanelWatch watch;
    const SqliteFaults sqlite;
    std::vector<std::size_t> calls_before;

    watch.on_free = [&] {
        calls_before.push_back(sqlite.calls().size());
    };
    EXPECT_EQ(restore(), 0);
    EXPECT_EQ(calls_before, std::vector<std::size_t>{0});
    EXPECT_FALSE(sqlite.calls().empty());
}

/* It opens and closes a connection of its own, as the reply's writer does. */
TEST_F(RestoreResponderAttachments, WriterOfFilesIsCalledWhenThereAreNone)
{
    const SqliteFaults sqlite;

    EXPECT_EQ(restore(nullptr), 0);
    EXPECT_EQ(sqlite.count("open"), 2);
    EXPECT_EQ(sqlite.count("close"), 2);
    EXPECT_EQ(sqlite.count("prepare BEGIN TRANSACTION;"), 1);
}

TEST_F(RestoreResponderAttachments, ResultThatCannotBeFetchedIsReported)
{
    PanelWatch watch;

    watch.lose_result(1);

    EXPECT_EQ(restore(), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to query autoresponder Box@One.Example attachments: ");
    EXPECT_EQ(store.rows(), Lines{});
}

TEST_F(RestoreResponderAttachments, NoMemoryForTheArrayIsReportedAndNothingWritten)
{
    const PanelWatch watch;

    EXPECT_EQ(restore_without_memory(1), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to allocate memory for responder attachments");
    EXPECT_EQ(watch.queries.size(), 1U) << "the query comes first";
    EXPECT_EQ(store.rows(), Lines{});
}

/* Allocations 2 to 128 are for the names of 127 files. */
TEST_F(RestoreResponderAttachments, NoMemoryForTheGrowthIsReportedAndNothingWritten)
{
    add_files(128);

    EXPECT_EQ(restore_without_memory(129), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to reallocate memory for responder attachments");
    EXPECT_EQ(store.rows(), Lines{});
}

/* 512 names and four arrays of them; what comes next is the mailname's. */
TEST_F(RestoreResponderAttachments, RoomDoubles)
{
    add_files(512);

    EXPECT_EQ(restore_without_memory(516), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to reallocate memory for responder attachments");
    EXPECT_EXIT((void)restore_without_memory(517), ::testing::ExitedWithCode(1), "^Cannot allocate memory: ");
}

TEST_F(RestoreResponderAttachments, NoMemoryForANameIsReportedAndNothingWritten)
{
    add_files(128);

    for (const int nth : {2, 128, 130}) {
        EXPECT_EQ(restore_without_memory(nth), -1) << nth;
        EXPECT_EQ(log.take_one(), "3 Unable to reallocate memory for responder attachments") << nth;
        EXPECT_EQ(store.rows(), Lines{}) << nth;
    }
}

TEST_F(RestoreResponderAttachments, WithoutItsReplyAMailboxGetsNoFiles)
{
    add_files(2);
    refuse_rows("autoresponder");
    const SqliteFaults sqlite;

    EXPECT_EQ(restore(), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to add/update autoresponder (box@one.example): refused");
    EXPECT_EQ(sqlite.count("prepare REPLACE INTO attachments VALUES (?, ?  );"), 0);
}

TEST_F(RestoreResponderAttachments, FailedWriteOfTheFilesKeepsTheReply)
{
    add_files(2);
    store.execute("DROP TABLE attachments");

    EXPECT_EQ(restore(), -1);
    EXPECT_EQ(log.take_one(),
              "3 Unable to prepare SQL statement for query 'REPLACE INTO attachments VALUES (?, ?  "
              ");': no such table: attachments");
    EXPECT_EQ(written(), Lines{"box@one.example"});
    EXPECT_FALSE(responder_db.is_open());
}

} // namespace

} // namespace kolmo::testing
