/*
 * What a whole run does with its two connections, which no observer of the program from outside can see: the
 * run in this process, over the sandbox's server and stores, with SQLite calls and pauses that fail.
 */
#include "restore/program_flow.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "restore/run_handles.h"
#include "tests/restore/panel_watch.h"
#include "tests/run/panel_world.h"
#include "tests/support/fake_syslog.h"
#include "tests/support/log_capture.h"
#include "tests/support/output_capture.h"
#include "tests/support/sandbox.h"
#include "tests/support/sqlite_faults.h"

namespace kolmo::testing
{

namespace
{

using Lines = std::vector<std::string>;

Lines disconnected; /* every mysql_close: "open" or "null" */
std::function<void()> on_disconnect;

extern "C" void __real_mysql_close(MYSQL *connection);

extern "C" void __wrap_mysql_close(MYSQL *connection)
{
    disconnected.emplace_back(connection != nullptr ? "open" : "null");
    if (on_disconnect)
        on_disconnect();
    __real_mysql_close(connection);
}

/* A panel without domains, so that the run's own calls are the only ones. */
class RebuildResponders : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(in_sandbox()) << "run this in tools/sandbox";
        reset_panel_files();
        panel.reset();
    }

    /* The result, and the lines that went to syslog. */
    std::pair<int, Lines> run()
    {
        int result = 0;

        (void)output_of([&] { result = rebuild_responders("rebuild"); });
        return {result, syslog.take_lines()};
    }

    PanelDatabase panel;
    LogCapture log_before_and_after; /* what the run does to the log functions ends with the test */
    FakeSyslog syslog;
};

struct Ending {
    const char *panel; /* what is done to the database */
    int result;
};

TEST_F(RebuildResponders, EveryEndingClosesTheStoreOnceAndForgetsBothConnections)
{
    const Ending endings[] = {
        {"DO 0", 0},
        {"INSERT INTO ServiceNodeConfiguration VALUES ('auto_reply_headers', '{', 1, 'mailServer')", -1},
        {"DROP TABLE ServiceNodeConfiguration", 1},
        {"DROP TABLE domains", -1},
        {"DROP DATABASE qsx", -1},
    };

    for (const Ending &ending : endings) {
        panel.execute(ending.panel);
        SqliteFaults sqlite;

        EXPECT_EQ(run().first, ending.result) << ending.panel;
        EXPECT_EQ(sqlite.calls(), (Lines{"open " + responder_store, "busy_timeout 50", "close"}))
            << ending.panel;
        EXPECT_FALSE(responder_db.is_open());
        EXPECT_EQ(panel_db, nullptr);
    }
    panel.reset();
}

/* The refused connection, and the run's, of which there is none. */
TEST_F(RebuildResponders, PanelIsTakenLeaveOfEvenWithoutAConnection)
{
    panel.execute("DROP DATABASE qsx");
    disconnected.clear();

    EXPECT_EQ(run().first, -1);
    EXPECT_EQ(disconnected, (Lines{"open", "null"}));
    panel.reset();
}

/* The store's last close may take hours: the server is not to wait for it. */
TEST_F(RebuildResponders, PanelIsTakenLeaveOfBeforeTheStoreIsClosed)
{
    const SqliteFaults sqlite;
    std::vector<int> closes_before;

    on_disconnect = [&] {
        closes_before.push_back(sqlite.count("close"));
    };
    EXPECT_EQ(run().first, 0);
    on_disconnect = nullptr;
    EXPECT_EQ(closes_before, std::vector<int>{0});
}

TEST_F(RebuildResponders, HeadersAreWrittenOverTheRunsOwnConnection)
{
    panel.set_reply_headers(R"({"X-A": "1"})");
    const SqliteFaults sqlite;

    EXPECT_EQ(run(), std::pair(0, Lines{}));
    EXPECT_EQ(sqlite.count("open"), 1);
}

/* Which the panel's own tables do not hold. */
TEST_F(RebuildResponders, NameThatIsNullIsAnEmptyOne)
{
    const int domain = panel.add_domain("one.example");

    panel.add_alias(domain, "one.alias");
    (void)panel.add_mailbox_with_responder(domain, "info");
    panel.execute("ALTER TABLE domains MODIFY name VARCHAR(255); UPDATE domains SET name = NULL; "
                  "ALTER TABLE domain_aliases DROP PRIMARY KEY, MODIFY name VARCHAR(255); "
                  "UPDATE domain_aliases SET name = NULL");
    EXPECT_EQ(run(), std::pair(0, Lines{}));
    EXPECT_EQ(query_store(handlers_store, "SELECT address FROM handlers"), Lines{"info@"});
}

TEST_F(RebuildResponders, RowsOfTheDomainsAreFreedBeforeTheSettingIsAskedFor)
{
    PanelWatch watch;
    std::vector<std::size_t> queries_before;

    watch.on_free = [&] {
        queries_before.push_back(watch.queries.size());
    };
    EXPECT_EQ(run().first, 0);
    EXPECT_EQ(queries_before, (std::vector<std::size_t>{1, 2}));
}

TEST_F(RebuildResponders, OpenFailureWhoseClosingFailsEndsTheRunToo)
{
    SqliteFaults sqlite;
    sqlite.fail_call(SqliteCall::open, 1);
    sqlite.be_busy(SqliteCall::close, 2);
    sqlite.fail_pause(1);

    EXPECT_EQ(run(), std::pair(-1, Lines{"3 Unable to open database " + responder_store + ": not an error"}));
    EXPECT_EQ(sqlite.calls(), (Lines{"open " + responder_store, "close", "close", "pause 10000"}));
}

TEST_F(RebuildResponders, StoreThatAFailingOperationHasClosedIsNotClosedAgain)
{
    (void)panel.add_mailbox_with_responder(panel.add_domain("one.example"), "info");
    write_utility(stand_in + "; sqlite3 " + responder_store + " 'DROP TABLE autoresponder'");
    SqliteFaults sqlite;

    EXPECT_EQ(run().first, 1);
    EXPECT_EQ(sqlite.count("open"), 2) << "the run's store, and the handlers'";
    EXPECT_EQ(sqlite.count("close"), 2);
    EXPECT_FALSE(responder_db.is_open());
}

/* Each step is busy once; the fourth pause is that of the store's first, after three of the handlers'. */
TEST_F(RebuildResponders, StoreThatAFailedPauseHasAbandonedIsNotClosed)
{
    (void)panel.add_mailbox_with_responder(panel.add_domain("one.example"), "info");
    SqliteFaults sqlite;
    sqlite.be_busy(SqliteCall::step, 1);
    sqlite.fail_pause(4);

    EXPECT_EQ(run(), std::pair(-1, Lines{"3 Unable to sync configuration of autoresponder for domain "
                                         "one.example"}));
    EXPECT_EQ(sqlite.pauses().size(), 4U);
    EXPECT_EQ(sqlite.count("close"), 1) << "the handlers' store";
    EXPECT_TRUE(responder_db.is_abandoned());
    (void)responder_db.release(); /* closed with `sqlite` */
}

/* Attempts 1 and 2 follow each other at once; the pause comes after an attempt that succeeds, too. */
TEST_F(RebuildResponders, LastCloseIsRepeatedWhileBusyWithGrowingPauses)
{
    SqliteFaults sqlite;
    sqlite.be_busy(SqliteCall::close, 3);

    EXPECT_EQ(run(), std::pair(0, Lines{}));
    EXPECT_EQ(sqlite.calls(), (Lines{"open " + responder_store, "busy_timeout 50", "close", "close",
                                     "pause 10000", "close", "pause 20000", "close", "pause 30000"}));
    EXPECT_FALSE(responder_db.is_open());
}

TEST_F(RebuildResponders, FailedPauseInTheLastCloseGivesMinusOneAndTheStoreStaysHeld)
{
    panel.execute("DROP TABLE ServiceNodeConfiguration"); /* would be 1 */
    SqliteFaults sqlite;
    sqlite.be_busy(SqliteCall::close, 5);
    sqlite.fail_pause(2);

    EXPECT_EQ(run(), std::pair(-1, Lines{}));
    EXPECT_EQ(sqlite.pauses(), (std::vector<long>{10'000, 20'000}));
    EXPECT_EQ(sqlite.count("close"), 3);
    EXPECT_EQ(panel_db, nullptr);
    EXPECT_TRUE(responder_db.is_abandoned());
    (void)responder_db.release(); /* closed with `sqlite` */
}

TEST_F(RebuildResponders, FailedPauseAfterTheLastCloseGivesMinusOneAndNothingIsHeld)
{
    SqliteFaults sqlite;
    sqlite.be_busy(SqliteCall::close, 1);
    sqlite.fail_pause(1);

    EXPECT_EQ(run(), std::pair(-1, Lines{}));
    EXPECT_EQ(sqlite.count("close"), 2);
    EXPECT_TRUE(sqlite.open_connections().empty());
    EXPECT_FALSE(responder_db.is_open());
}

TEST_F(RebuildResponders, LastCloseThatStaysBusyEndsWhenThePauseReachesASecond)
{
    SqliteFaults sqlite;
    sqlite.be_busy(SqliteCall::close, 1'000'000);

    EXPECT_EQ(run(), std::pair(-1, Lines{}));
    EXPECT_EQ(sqlite.count("close"), 100'001);
    EXPECT_EQ(sqlite.pauses().back(), 1'000'000'000);
    (void)responder_db.release();
}

TEST_F(RebuildResponders, LastCloseThatFailsOtherwiseIsNoFailure)
{
    SqliteFaults sqlite;
    sqlite.fail_call(SqliteCall::close, 1, SQLITE_ERROR);

    EXPECT_EQ(run(), std::pair(0, Lines{}));
    EXPECT_EQ(sqlite.count("close"), 1);
    EXPECT_FALSE(responder_db.is_open());
}

} // namespace

} // namespace kolmo::testing
