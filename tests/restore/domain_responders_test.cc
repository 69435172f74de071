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

namespace kolmo
{

namespace
{

using namespace testing;

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

TEST_F(RestoreDomainResponders, EachMailboxGetsItsHandlerAndItsReply)
{
    add_mailbox("anna");
    add_mailbox("info");

    EXPECT_EQ(restore(), 0);
    EXPECT_EQ(handler_addresses(), (Lines{"anna@one.example", "info@one.example"}));
    EXPECT_EQ(written(), (Lines{"anna@one.example", "info@one.example"}));
}

TEST_F(RestoreDomainResponders, HandlersAreThoseOfTheAutoresponder)
{
    add_mailbox("info");

    EXPECT_EQ(restore(), 0);
    EXPECT_EQ(handlers.rows(), Lines{"2|1|1|90|autoresponder|info@one.example|/opt/qsx/handlers/hooks/"
                                     "autoresponder|responder|0"});
}

TEST_F(RestoreDomainResponders, NamesAndIdsAreAskedForAndHandedOn)
{
    add_mailbox("anna");
    add_mailbox("info");
    const PanelWatch watch;

    EXPECT_EQ(restore(), 0);
    EXPECT_EQ(watch.queries, (Lines{names_head + '1' + names_tail, responders_query("1,2"),
                                    attachments_query(1), attachments_query(2)}));
}

TEST_F(RestoreDomainResponders, RepliesAreWrittenOverTheRunsOwnConnection)
{
    add_mailbox("info");
    const SqliteFaults sqlite;

    EXPECT_EQ(restore(), 0);
    EXPECT_EQ(sqlite.count("open"), 1);
    EXPECT_EQ(sqlite.count("open " + handlers.path()), 1);
    EXPECT_TRUE(responder_db.is_open());
}

TEST_F(RestoreDomainResponders, OnlyMailboxesOfTheDomainThatAnswerAreTaken)
{
    add_mailbox("info");
    panel.add_mailbox(1, "off", false);
    panel.add_mailbox_with_responder(2, "other");

    EXPECT_EQ(restore(), 0);
    EXPECT_EQ(handler_addresses(), Lines{"info@one.example"});
    EXPECT_EQ(written(), Lines{"info@one.example"});
}

/* Whether the reply itself is switched on does not matter. */
TEST_F(RestoreDomainResponders, ReplyThatIsOffIsRestoredWhenItsMailboxAnswers)
{
    PanelResponder off;

    off.resp_on = "false";
    panel.add_mailbox_with_responder(1, "info", off);

    EXPECT_EQ(restore(), 0);
    EXPECT_EQ(written(), Lines{"info@one.example"});
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

TEST_F(RestoreDomainResponders, RefusedQueryIsReportedInTheServersWords)
{
    panel.execute("DROP TABLE mail");

    EXPECT_EQ(restore(), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to query mail names: Table 'qsx.mail' doesn't exist");
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

TEST_F(RestoreDomainResponders, FailedReplyLeavesTheHandlersRegistered)
{
    add_mailbox("info");
    refuse_rows("autoresponder");

    EXPECT_EQ(restore(), 1);
    EXPECT_EQ(log.take(),
              (Lines{"3 Unable to add/update autoresponder (info@one.example): refused", cannot_sync}));
    EXPECT_EQ(handler_addresses(), Lines{"info@one.example"});
}

TEST_F(RestoreDomainResponders, MailboxWithoutADefaultReplyFailsTheDomainAfterTheOthers)
{
    panel.add_mailbox(1, "anna");
    panel.add_mailbox_with_responder(1, "info");

    EXPECT_EQ(restore(), 1);
    EXPECT_EQ(log.take(), (Lines{missing_line("anna@one.example", "1"), cannot_sync}));
    EXPECT_EQ(handler_addresses(), (Lines{"anna@one.example", "info@one.example"}));
    EXPECT_EQ(written(), Lines{"info@one.example"});
}

/* --- load_domain_responders ---------------------------------------------------------------------------- */

class LoadDomainResponders : public DomainRespondersTest
{
protected:
    static int load(const std::string &names, const std::string &ids)
    {
        return load_domain_responders(panel_db, &responder_db, names.c_str(), ids.c_str(), "one.example");
    }

    /* A reply's forward address, as it is stored. */
    [[nodiscard]] std::string forward_of(const std::string &mailname) const
    {
        const Lines found =
            store.query("SELECT forward_to FROM autoresponder WHERE mn = '" + mailname + '\'');

        return found.size() == 1 ? found.front() : std::to_string(found.size()) + " rows";
    }
};

TEST_F(LoadDomainResponders, EveryColumnArrives)
{
    PanelResponder responder;

    responder.keystr = "key";
    responder.key_where = "subj";
    responder.subject = "Subject";
    responder.reply_to = "Reply@Example.org";
    responder.content_type = "text/html";
    responder.charset = "KOI8-R";
    responder.text = "Gone\nfishing";
    responder.ans_freq = 17;
    responder.mem_limit = -3;
    panel.add_forward(panel.add_mailbox_with_responder(1, "Owner", responder), "Forward@Example.org");

    EXPECT_EQ(load("Box", "1"), 0);
    EXPECT_EQ(store.rows("autoresponder"),
              Lines{"box@one.example|key|subj|Subject|Reply@Example.org|Forward@Example.org|text/html|KOI8-R|"
                    "Gone\nfishing|17|-3|owner@one.example"});
}

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

TEST_F(LoadDomainResponders, OnlyTheReplyNamedDefaultIsUsed)
{
    const int mailbox = panel.add_mailbox(1, "info");
    PanelResponder other;

    for (const char *const name : {"a", "z"}) {
        other.resp_name = name;
        panel.add_responder(mailbox, other);
    }

    EXPECT_EQ(load("info", "1"), -1);
    EXPECT_EQ(log.take_one(), missing_line("info@one.example", "1"));
    EXPECT_EQ(store.rows(), Lines{});
}

TEST_F(LoadDomainResponders, MailboxesWithoutAReplyAreReportedAndTheOthersWritten)
{
    for (const char *const name : {"a", "b", "c", "d"})
        panel.add_mailbox(1, name);
    panel.add_responder(2);
    panel.add_responder(4);

    EXPECT_EQ(load("a,b,c,d", "1,2,3,4"), -1);
    EXPECT_EQ(log.take(), (Lines{missing_line("a@one.example", "1"), missing_line("c@one.example", "3")}));
    EXPECT_EQ(written(), (Lines{"b@one.example", "d@one.example"}));
}

TEST_F(LoadDomainResponders, LastOfSeveralForwardAddressesIsTaken)
{
    const int responder = panel.add_mailbox_with_responder(1, "info");

    for (const char *const address : {"zoe@f.example", "adam@f.example", "max@f.example"})
        panel.add_forward(responder, address);
    const std::string last = panel.value(
        "SELECT address FROM mail_resp LEFT JOIN resp_forward ON rn_id = id WHERE mn_id = 1 LIMIT 2, 1");

    EXPECT_EQ(load("info", "1"), 0);
    EXPECT_FALSE(last.empty());
    EXPECT_EQ(forward_of("info@one.example"), last);
}

TEST_F(LoadDomainResponders, NoForwardAddressIsWrittenAsAnEmptyText)
{
    add_mailbox("info");

    EXPECT_EQ(load("info", "1"), 0);
    EXPECT_EQ(forward_of("info@one.example"), "");
}

TEST_F(LoadDomainResponders, NullTextsAreWrittenEmpty)
{
    PanelResponder responder;

    for (auto *const text : {&responder.keystr, &responder.subject, &responder.reply_to,
                             &responder.content_type, &responder.charset, &responder.text})
        text->reset();
    panel.add_mailbox_with_responder(1, "info", responder);

    EXPECT_EQ(load("info", "1"), 0);
    EXPECT_EQ(store.rows("autoresponder"), Lines{"info@one.example||no|||||||10|100|info@one.example"});
}

/* Then the owner has no name. */
TEST_F(LoadDomainResponders, ReplyWhoseMailboxIsGoneIsWritten)
{
    panel.add_responder(7);

    EXPECT_EQ(load("info", "7"), 0);
    EXPECT_EQ(store.query("SELECT mn, real_owner FROM autoresponder"),
              Lines{"info@one.example|@one.example"});
}

/* Here only commas separate. */
TEST_F(LoadDomainResponders, NameWithABlankStaysOneName)
{
    add_mailbox("a b");
    add_mailbox("c");

    EXPECT_EQ(load("a b,c", "1,2"), 0);
    EXPECT_EQ(written(), (Lines{"a b@one.example", "c@one.example"}));
}

/* A comma in a mailbox's name has made two of it. */
TEST_F(LoadDomainResponders, NameWithoutAnIdIsFoundMissingUnderZero)
{
    add_mailbox("a,b");

    EXPECT_EQ(load("a,b", "1"), -1);
    EXPECT_EQ(log.take_one(), missing_line("b@one.example", "0"));
    EXPECT_EQ(written(), Lines{"a@one.example"});
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

TEST_F(LoadDomainResponders, RefusedQueryIsReportedInTheServersWords)
{
    panel.execute("DROP TABLE mail_resp");

    EXPECT_EQ(load("info", "1"), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to query autoresponders: Table 'qsx.mail_resp' doesn't exist");
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

TEST_F(LoadDomainResponders, FailedWriteEndsTheWalkAndKeepsWhatWasWritten)
{
    for (const char *const name : {"a", "b", "c"})
        add_mailbox(name);
    store.execute("CREATE TRIGGER refuse BEFORE INSERT ON autoresponder WHEN NEW.mn = 'b@one.example' "
                  "BEGIN SELECT RAISE(ABORT, 'refused'); END");
    const PanelWatch watch;

    EXPECT_EQ(load("a,b,c", "1,2,3"), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to add/update autoresponder (b@one.example): refused");
    EXPECT_EQ(watch.queries.size(), 3U); /* c's attachments are not asked for */
    EXPECT_EQ(written(), Lines{"a@one.example"});
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

    /* The allocations of restoring so many files. */
    int allocations(int count)
    {
        add_files(count);
        const AllocFaults counter(0);

        (void)restore();
        return counter.calls();
    }

    int restore_without_memory(int nth)
    {
        const AllocFaults faults(nth);

        return restore();
    }
};

TEST_F(RestoreResponderAttachments, ReplyAndFilesAreWrittenForTheMailbox)
{
    panel.add_attachment(5, "a.txt");
    panel.add_attachment(5, "B 'c'.PDF");
    panel.add_attachment(6, "other.txt");
    const PanelWatch watch;

    EXPECT_EQ(restore(), 0);
    EXPECT_EQ(watch.queries, Lines{attachments_query(5)});
    EXPECT_EQ(store.rows("autoresponder"), Lines{sample_row("box@one.example", "owner@one.example")});
    EXPECT_EQ(store.rows("attachments"), (Lines{"box@one.example|a.txt", "box@one.example|B 'c'.PDF"}));
}

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

struct Growth {
    int count;
    int times;
};

/* The array doubles when its last place is taken; all else is an allocation for each file. */
TEST_F(RestoreResponderAttachments, RoomFor128FilesDoublesWhenTheLastPlaceIsTaken)
{
    const Growth growths[] = {{2, 0},   {127, 0}, {128, 1}, {129, 1}, {255, 1},
                              {256, 2}, {511, 2}, {512, 3}, {513, 3}};
    const int for_one = allocations(1);

    for (const Growth &growth : growths)
        EXPECT_EQ(allocations(growth.count) - for_one - (growth.count - 1), growth.times) << growth.count;
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

TEST_F(RestoreResponderAttachments, RefusedQueryIsReportedAndNothingWritten)
{
    panel.execute("DROP TABLE resp_attach");

    EXPECT_EQ(restore(), -1);
    EXPECT_EQ(log.take_one(),
              "3 Unable to query autoresponder Box@One.Example attachments: Table 'qsx.resp_attach' "
              "doesn't exist");
    EXPECT_EQ(store.rows(), Lines{});
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
    EXPECT_EQ(restore_without_memory(1), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to allocate memory for responder attachments");
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

TEST_F(RestoreResponderAttachments, RefusedFileDoesNotFailTheReply)
{
    add_files(1);
    refuse_rows("attachments");

    EXPECT_EQ(restore(), 0);
    EXPECT_EQ(log.take_one(), "3 Unable to add autoresponder attachment (box@one.example): refused");
    EXPECT_EQ(written(), Lines{"box@one.example"});
}

} // namespace

} // namespace kolmo
