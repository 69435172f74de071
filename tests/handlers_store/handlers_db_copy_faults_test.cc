#include <string>

#include <gtest/gtest.h>

#include "handlers_store/handlers_db.h"
#include "tests/handlers_store/handlers_sweep.h"
#include "tests/handlers_store/handlers_texts.h"

namespace kolmo
{

namespace
{

using namespace testing;

class CopyFaults : public HandlersSweep
{
protected:
    void fill() override
    {
        store.execute("DELETE FROM handlers");
        store.add(handler("spam", "a@d.test"));
    }

    FaultTable read_table(const char *sql, const std::string &key) const
    {
        const FaultRow failed_read =
            step_row("Unable to select data from handlers database: ", -1, before); /* one row and the end */

        return FaultTable{open_row(before)} + statement_rows(sql, {{"address", "'" + key + "'"}}, before) +
               FaultTable{failed_read, failed_read};
    }

    /* The copy's own line comes after the driver's or the action's. */
    FaultTable write_table(const std::string &target) const
    {
        const Bound bound = {{"priority", "10"},    {"name", "'spam'"},
                             {"type", "1"},         {"address", "'" + target + "'"},
                             {"queue", "2"},        {"address", "'/hook'"},
                             {"context", "'none'"}, {"protect_on_restore", "0"},
                             {"enabled", "1"}};
        const std::string refused = "Unable to execute insert record into handlers database: ";

        return begin_rows(before, {not_added}) + statement_rows(insert_sql, bound, before, {not_added}) +
               FaultTable{step_row(refused, 0, before)} + end_rows(before, {not_added}) +
               FaultTable{close_row({"a@d.test spam", target + " spam"})};
    }

    const Lines before = {"a@d.test spam"};
    const Operation copy_to_mailbox = [](StoreConnection *connection) {
        return handlers_db_copy(connection, "a", "d.test", "x", "t.test");
    };
    const Operation copy_mailbox = [](StoreConnection *connection) {
        return handlers_db_copy(connection, "a", "d.test", nullptr, "t.test");
    };
    const Operation copy_domain = [](StoreConnection *connection) {
        return handlers_db_copy(connection, nullptr, "d.test", nullptr, "t.test");
    };
};

TEST_F(CopyFaults, EveryCallFailsOnceFromMailboxToMailbox)
{
    sweep_calls(read_table(copy_mailbox_sql, "a@d.test") + write_table("x@t.test"), copy_to_mailbox);
}

TEST_F(CopyFaults, EveryCallFailsOnceForAMailboxOfTheSameName)
{
    sweep_calls(read_table(copy_mailbox_sql, "a@d.test") + write_table("a@t.test"), copy_mailbox);
}

TEST_F(CopyFaults, EveryCallFailsOnceForADomain)
{
    sweep_calls(read_table(copy_domain_sql, "d.test") + write_table("a@t.test"), copy_domain);
}

/* The read, BEGIN, one insert, END and the close; only the step of END commits. */
TEST_F(CopyFaults, EveryPauseFailsOnceAndNothingMoreIsSaid)
{
    const Lines after = {"a@d.test spam", "a@t.test spam"};

    for (const Operation &copy : {copy_mailbox, copy_domain})
        sweep_pauses_to_commit(8, before, after, copy);
}

TEST_F(CopyFaults, EveryCallIsBusyTwice)
{
    const Lines after = {"a@d.test spam", "a@t.test spam"};

    for (const Operation &copy : {copy_mailbox, copy_domain})
        sweep_own_busy_calls(repeat({{10, after}}), copy);
}

TEST_F(CopyFaults, NothingToCopyRunsAnEmptyTransaction)
{
    SqliteFaults faults;

    EXPECT_EQ(copy_mailbox(nullptr), 0);
    EXPECT_EQ(faults.calls(),
              (Lines{"open " + store.path(), "busy_timeout 50", std::string("prepare ") + copy_mailbox_sql,
                     "bind 1 'a@d.test'", "step", "finalize", "prepare BEGIN TRANSACTION;", "step",
                     "finalize", "prepare END TRANSACTION;", "step", "finalize", "close"}));
}

/* The driver reports, and the pause of its close fails: from there on nothing is said. */
TEST_F(CopyFaults, FailedPauseOfTheClosingAfterAReportKeepsTheCopySilent)
{
    fail_prepare_and_pause_of_close(2, 1, "BEGIN TRANSACTION;", copy_domain);
}

} // namespace

} // namespace kolmo
