#include "restore/program_flow.h"
#include "restore/run_handles.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "responder_store/responder_db.h"
#include "tests/restore/fake_steps.h"
#include "tests/support/fake_syslog.h"
#include "tests/support/log_capture.h"
#include "tests/support/sqlite_faults.h"
#include "tests/support/temp_dir.h"

namespace kolmo
{

namespace
{

using testing::FakeSteps;
using testing::FakeSyslog;
using testing::LogCapture;
using testing::SqliteCall;
using testing::SqliteFaults;
using testing::TempDir;
using Lines = std::vector<std::string>;

const std::string utility = "utility mail_responders_control --init-db";
const std::string setting = "setting auto_reply_headers panel";

/* A run in which every step works, over an empty store and a panel without domains. */
class RebuildResponders : public ::testing::Test
{
protected:
    RebuildResponders()
        : path_(folder_.path("responder.db")), saved_path_(std::exchange(responder_db_path, path_.c_str()))
    {
    }

    ~RebuildResponders() override
    {
        for (const std::string &line : syslog.take_lines())
            ADD_FAILURE() << "logged without being announced: " << line;
        responder_db_path = saved_path_;
    }

    static int run() { return rebuild_responders("rebuild"); }

    [[nodiscard]] int called(const std::string &call) const
    {
        return static_cast<int>(std::count(steps.calls.begin(), steps.calls.end(), call));
    }

    TempDir folder_;
    std::string path_;
    const char *saved_path_;
    LogCapture log_before_and_after; /* what the run does to the log functions ends with the test */
    FakeSyslog syslog;
    SqliteFaults sqlite;
    FakeSteps steps;
};

TEST_F(RebuildResponders, StepsComeInTheirOrder)
{
    steps.domains = {{"1", "one.example"}, {"2", "two.example"}};
    steps.headers = R"({"X-A":"1"})";

    EXPECT_EQ(run(), 0);
    EXPECT_EQ(steps.calls,
              (Lines{utility, "connect", "query panel", "store", "fetch", "domain 1 one.example",
                     "aliases 1 one.example", "fetch", "domain 2 two.example", "aliases 2 two.example",
                     "fetch", "free", setting, R"(headers {"X-A":"1"})", "disconnect panel"}));
}

TEST_F(RebuildResponders, StoreAndPanelAreOpenForTheStepsThatNeedThem)
{
    steps.domains = {{"1", "one.example"}};

    EXPECT_EQ(run(), 0);
    ASSERT_EQ(steps.calls.size(), steps.states.size());
    EXPECT_EQ(steps.states[0], "") << steps.calls[0];
    EXPECT_EQ(steps.states[1], "store") << steps.calls[1];
    for (std::size_t i = 2; i < steps.states.size(); i++)
        EXPECT_EQ(steps.states[i], "store panel") << steps.calls[i];
    EXPECT_FALSE(responder_db.is_open());
    EXPECT_EQ(panel_db, nullptr);
}

TEST_F(RebuildResponders, LogsErrorsOnlyToTheMailFacilityAndStandardError)
{
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(syslog.take_calls(), (Lines{"closelog", "openlog 0x21 16 rebuild", "setlogmask 0x0f"}));
}

TEST_F(RebuildResponders, FailedUtilityEndsTheRunWithNothingOpened)
{
    for (const int result : {1, 255, -1}) {
        steps.calls.clear();
        steps.utility_result = result;

        EXPECT_EQ(run(), -1) << result;
        EXPECT_EQ(syslog.take_lines(), Lines{"3 Unable to re-initialize autoresponder's database"});
        EXPECT_EQ(steps.calls, Lines{utility});
        EXPECT_EQ(sqlite.calls(), Lines{});
    }
}

TEST_F(RebuildResponders, StoreIsOpenedOnceWithABusyTimeout)
{
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(sqlite.calls(), (Lines{"open " + path_, "busy_timeout 50", "close"}));
}

TEST_F(RebuildResponders, OpenFailureWithoutAHandleClosesNothing)
{
    sqlite.fail_call(SqliteCall::open, 1);
    sqlite.open_without_handle();

    EXPECT_EQ(run(), -1);
    EXPECT_EQ(syslog.take_lines(), Lines{"3 Unable to open database " + path_ + ": general DB errror"});
    EXPECT_EQ(sqlite.calls(), Lines{"open " + path_});
    EXPECT_EQ(steps.calls, Lines{utility});
    EXPECT_FALSE(responder_db.is_open());
}

TEST_F(RebuildResponders, OpenFailureWithAHandleClosesIt)
{
    const std::string path = folder_.path("missing/responder.db");

    responder_db_path = path.c_str();

    EXPECT_EQ(run(), -1);
    EXPECT_EQ(syslog.take_lines(),
              Lines{"3 Unable to open database " + path + ": unable to open database file"});
    EXPECT_EQ(sqlite.calls(), (Lines{"open " + path, "close"}));
    EXPECT_EQ(steps.calls, Lines{utility});
    EXPECT_FALSE(responder_db.is_open());
}

TEST_F(RebuildResponders, OpenFailureWhoseClosingIsBusyClosesUnderTheBusyRule)
{
    sqlite.fail_call(SqliteCall::open, 1);
    sqlite.be_busy(SqliteCall::close, 2);

    EXPECT_EQ(run(), -1);
    EXPECT_EQ(syslog.take_lines().size(), 1U);
    EXPECT_EQ(sqlite.pauses(), (std::vector<long>{10'000, 20'000}));
    EXPECT_TRUE(sqlite.open_connections().empty());
}

TEST_F(RebuildResponders, OpenFailureWhoseClosingFailsGivesTheSameResult)
{
    sqlite.fail_call(SqliteCall::open, 1);
    sqlite.be_busy(SqliteCall::close, 2);
    sqlite.fail_pause(1);

    EXPECT_EQ(run(), -1);
    EXPECT_EQ(syslog.take_lines().size(), 1U);
    EXPECT_FALSE(responder_db.is_open());
}

TEST_F(RebuildResponders, UnreachablePanelIsReportedAndEverythingClosed)
{
    steps.connects = false;

    EXPECT_EQ(run(), -1);
    EXPECT_EQ(syslog.take_lines(), Lines{"3 Unable to connect to mysql server"});
    EXPECT_EQ(steps.calls, (Lines{utility, "connect", "disconnect null"}));
    EXPECT_EQ(sqlite.count("close"), 1);
}

/* The terminator is sent, too. */
TEST_F(RebuildResponders, DomainsQueryIsSentWithItsClosingZeroByte)
{
    const std::string text =
        "SELECT d.id, d.name FROM domains d  LEFT JOIN DomainServices ds ON d.id=ds.dom_id  "
        "WHERE ds.type='mail'";

    EXPECT_EQ(run(), 0);
    EXPECT_EQ(steps.query.size(), 104U);
    EXPECT_EQ(steps.query, text + '\0');
}

TEST_F(RebuildResponders, RefusedDomainsQueryIsReported)
{
    steps.query_result = 1;

    EXPECT_EQ(run(), -1);
    EXPECT_EQ(syslog.take_lines(), Lines{"3 Unable to query domains: the server's words"});
    EXPECT_EQ(steps.calls, (Lines{utility, "connect", "query panel", "disconnect panel"}));
    EXPECT_EQ(sqlite.count("close"), 1);
}

TEST_F(RebuildResponders, DomainsThatCannotBeFetchedAreReported)
{
    steps.has_result = false;

    EXPECT_EQ(run(), -1);
    EXPECT_EQ(syslog.take_lines(), Lines{"3 Unable to query domains: the server's words"});
    EXPECT_EQ(steps.calls, (Lines{utility, "connect", "query panel", "store", "disconnect panel"}));
    EXPECT_EQ(sqlite.count("close"), 1);
}

TEST_F(RebuildResponders, NoDomainIsNoFailureAndTheHeadersAreStillRead)
{
    steps.headers = "{}";

    EXPECT_EQ(run(), 0);
    EXPECT_EQ(called("headers {}"), 1);
}

TEST_F(RebuildResponders, IdsAndNamesArePassedOnAsTheyCome)
{
    steps.domains = {{" 007", "Ünïcode.EXAMPLE"}};

    EXPECT_EQ(run(), 0);
    EXPECT_EQ(called("domain  007 Ünïcode.EXAMPLE"), 1);
    EXPECT_EQ(called("aliases  007 Ünïcode.EXAMPLE"), 1);
}

TEST_F(RebuildResponders, FailedDomainEndsTheWalkWithItsResult)
{
    for (const int result : {1, -1}) {
        FakeSteps failing;
        failing.domains = {{"1", "one.example"}, {"2", "two.example"}, {"3", "three.example"}};
        failing.domain_results = {{"two.example", result}};

        EXPECT_EQ(run(), result);
        EXPECT_EQ(failing.calls, (Lines{utility, "connect", "query panel", "store", "fetch",
                                        "domain 1 one.example", "aliases 1 one.example", "fetch",
                                        "domain 2 two.example", "free", "disconnect panel"}));
    }
}

TEST_F(RebuildResponders, FailedAliasesEndTheWalkWithTheirResult)
{
    for (const int result : {1, -1}) {
        FakeSteps failing;
        failing.domains = {{"1", "one.example"}, {"2", "two.example"}};
        failing.alias_results = {{"one.example", result}};

        EXPECT_EQ(run(), result);
        EXPECT_EQ(failing.calls,
                  (Lines{utility, "connect", "query panel", "store", "fetch", "domain 1 one.example",
                         "aliases 1 one.example", "free", "disconnect panel"}));
    }
}

TEST_F(RebuildResponders, HeadersThatAreNotSetAreNotWritten)
{
    steps.headers = "";

    EXPECT_EQ(run(), 0);
    EXPECT_EQ(steps.calls, (Lines{utility, "connect", "query panel", "store", "fetch", "free", setting,
                                  "disconnect panel"}));
}

TEST_F(RebuildResponders, HeadersThatCannotBeReadGiveOne)
{
    steps.headers = std::nullopt;

    EXPECT_EQ(run(), 1);
    EXPECT_EQ(steps.calls.back(), "disconnect panel");
    EXPECT_EQ(sqlite.count("close"), 1);
}

TEST_F(RebuildResponders, ResultOfTheHeadersIsTheRuns)
{
    steps.headers = "{";
    steps.headers_result = -1;

    EXPECT_EQ(run(), -1);
    EXPECT_EQ(called("headers {"), 1);
    EXPECT_EQ(sqlite.count("close"), 1);
}

/* Attempts 1 and 2 follow each other at once; the pause comes after an attempt that succeeds, too. */
TEST_F(RebuildResponders, FinalCloseIsRepeatedWhileBusyWithGrowingPauses)
{
    sqlite.be_busy(SqliteCall::close, 3);

    EXPECT_EQ(run(), 0);
    EXPECT_EQ(sqlite.calls(), (Lines{"open " + path_, "busy_timeout 50", "close", "close", "pause 10000",
                                     "close", "pause 20000", "close", "pause 30000"}));
    EXPECT_FALSE(responder_db.is_open());
}

TEST_F(RebuildResponders, FailedPauseInTheFinalCloseGivesMinusOneAndTheStoreStaysHeld)
{
    sqlite.be_busy(SqliteCall::close, 5);
    sqlite.fail_pause(2);
    steps.headers = std::nullopt; /* would be 1 */

    EXPECT_EQ(run(), -1);
    EXPECT_EQ(sqlite.pauses(), (std::vector<long>{10'000, 20'000}));
    EXPECT_EQ(sqlite.count("close"), 3);
    EXPECT_TRUE(responder_db.is_abandoned());
    (void)responder_db.release(); /* closed with `sqlite` */
}

TEST_F(RebuildResponders, FailedPauseAfterTheCloseGivesMinusOne)
{
    sqlite.be_busy(SqliteCall::close, 1);
    sqlite.fail_pause(1);

    EXPECT_EQ(run(), -1);
    EXPECT_EQ(sqlite.count("close"), 2);
    EXPECT_TRUE(sqlite.open_connections().empty());
    EXPECT_FALSE(responder_db.is_open()); /* what is closed cannot be held */
}

TEST_F(RebuildResponders, CloseThatStaysBusyEndsWhenThePauseReachesASecond)
{
    sqlite.be_busy(SqliteCall::close, 1'000'000);

    EXPECT_EQ(run(), -1);
    EXPECT_EQ(sqlite.count("close"), 100'001);
    EXPECT_EQ(sqlite.pauses().back(), 1'000'000'000);
    (void)responder_db.release();
}

TEST_F(RebuildResponders, WhatTheFinalCloseReturnsIsNotLookedAt)
{
    sqlite.fail_call(SqliteCall::close, 1, SQLITE_ERROR);

    EXPECT_EQ(run(), 0);
    EXPECT_EQ(sqlite.count("close"), 1);
    EXPECT_FALSE(responder_db.is_open());
}

/* What fails is real: the file has no tables, and the operation closes the run's own connection. */
TEST_F(RebuildResponders, StoreThatAFailingOperationHasClosedIsNotClosedAgain)
{
    steps.domains = {{"1", "one.example"}};
    steps.domain_results = {{"one.example", 1}};
    steps.in_domain = [] {
        const char *const text = "x";

        EXPECT_EQ(responder_db_add_extra_headers(&responder_db, &text, &text, 1), -1);
        EXPECT_FALSE(responder_db.is_open());
    };

    EXPECT_EQ(run(), 1);
    EXPECT_EQ(syslog.take_lines().size(), 1U);
    EXPECT_EQ(sqlite.count("close"), 1);
    EXPECT_EQ(steps.calls.back(), "disconnect panel");
}

} // namespace

} // namespace kolmo
