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

class RemoveFaults : public HandlersSweep
{
protected:
    void fill() override
    {
        store.execute("DELETE FROM handlers");
        store.add(handler("spam", "a@d.test"));
        store.add(handler("virus", "a@other.test"));
    }

    FaultTable read_table() const
    {
        const FaultRow failed_read = step_row("Unable to select data from handlers database: ", -1, before,
                                              {no_list}); /* one row and the end */

        return FaultTable{open_to_read_row(before)} +
               statement_rows(select_domain_sql, {{"address", "'d.test'"}}, before, {no_list}) +
               FaultTable{failed_read, failed_read, close_row(after)};
    }

    FaultTable delete_table() const
    {
        const Bound bound = {{"name", "'spam'"}, {"type", "1"}, {"address", "'a@d.test'"}, {"queue", "2"}};
        const std::string refused = "Unable to execute delete record from handlers database: ";

        return FaultTable{open_row(before, {not_added})} + begin_rows(before, {not_added}) +
               statement_rows(delete_one_sql, bound, before, {not_added}) +
               FaultTable{step_row(refused, 0, before)} + end_rows(before, {not_added}) +
               FaultTable{close_row(after)};
    }

    const Lines before = {"a@d.test spam", "a@other.test virus"};
    const Lines after = {"a@other.test virus"};
    const Operation remove_by_name = [](StoreConnection *connection) {
        return handlers_db_exec_with_param(connection, delete_by_name_sql, "spam");
    };
    const Operation remove_domain = [](StoreConnection *connection) {
        return handlers_db_remove_domain(connection, "d.test");
    };
};

class ExecWithParamFaults : public RemoveFaults
{
};

class RemoveDomainFaults : public RemoveFaults
{
};

TEST_F(ExecWithParamFaults, EveryCallFailsOnce)
{
    sweep_calls({open_row(before), prepare_row(delete_by_name_sql, before),
                 bind_row("1 'spam'", "Unable to bind parameter param to query: ", before),
                 step_row("Unable to execute do action on handlers database: ", -1, before),
                 close_row(after)},
                remove_by_name);
}

TEST_F(ExecWithParamFaults, EveryPauseFailsOnce)
{
    sweep_pauses_to_commit(1, before, after, remove_by_name);
}

TEST_F(ExecWithParamFaults, EveryCallIsBusyTwice)
{
    sweep_own_busy_calls(repeat({{3, after}}), remove_by_name);
}

/* Over connections of its own: one for the read, which is closed, and then one for the deletes. */
TEST_F(RemoveDomainFaults, EveryCallFailsOnce)
{
    sweep_calls(read_table() + delete_table(), remove_domain);
}

/* The read and its close, BEGIN, one delete, END and the close; only the step of END commits. */
TEST_F(RemoveDomainFaults, EveryPauseFailsOnceAndNothingMoreIsSaid)
{
    sweep_own_pauses(repeat({{9, before}, {2, after}}), remove_domain);
    sweep_callers_pauses(repeat({{8, before}, {1, after}}), remove_domain);
}

TEST_F(RemoveDomainFaults, EveryCallIsBusyTwice)
{
    sweep_own_busy_calls(repeat({{11, after}}), remove_domain);
}

TEST_F(RemoveDomainFaults, DomainWithoutHandlersRunsAnEmptyTransaction)
{
    SqliteFaults faults;

    EXPECT_EQ(remove_domain(nullptr), 0);
    EXPECT_EQ(faults.calls(),
              (Lines{"open_v2 " + store.path() + " 1", "busy_timeout 50",
                     std::string("prepare ") + select_domain_sql, "bind 1 'd.test'", "step", "finalize",
                     "close", "open " + store.path(), "busy_timeout 50", "prepare BEGIN TRANSACTION;", "step",
                     "finalize", "prepare END TRANSACTION;", "step", "finalize", "close"}));
}

TEST_F(RemoveDomainFaults, FailedPauseOfTheReadsClosingAfterAReportKeepsItSilent)
{
    fail_prepare_and_pause_of_close(1, 1, select_domain_sql, remove_domain);
}

/* The read has been closed, after a pause; then BEGIN is reported. */
TEST_F(RemoveDomainFaults, FailedPauseOfTheBatchsClosingAfterAReportKeepsItSilent)
{
    fail_prepare_and_pause_of_close(2, 2, "BEGIN TRANSACTION;", remove_domain);
}

} // namespace

} // namespace kolmo
