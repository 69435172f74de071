#include <string>

#include "handlers_store/handlers_db.h"
#include "tests/handlers_store/handlers_sweep.h"

namespace kolmo::testing
{

namespace
{

class RemoveFaults : public HandlersSweep
{
protected:
    void fill() override
    {
        store.execute("DELETE FROM handlers");
        store.add(handler("spam", "a@d.test"));
        store.add(handler("virus", "a@other.test"));
    }

    const Lines before = {"a@d.test spam", "a@other.test virus"};
    const Lines after = {"a@other.test virus"};
    const Operation remove_domain = [](StoreConnection *connection) {
        return handlers_db_remove_domain(connection, "d.test");
    };
};

TEST_F(RemoveFaults, StatementWithAParameterFailsInItsOwnWayAtEveryCallAndPause)
{
    const Operation remove_by_name = [](StoreConnection *connection) {
        return handlers_db_exec_with_param(connection, delete_by_name_sql, "spam");
    };

    sweep_calls(open_row(before) +
                    statement_rows(delete_by_name_sql,
                                   {{"'spam'", "Unable to bind parameter param to query: "}}, before) +
                    step_row("Unable to execute do action on handlers database: ", -1, before) +
                    close_row(after),
                remove_by_name);
    sweep_busy_calls_and_pauses(1, before, after, remove_by_name);
}

/* Over connections of its own: one for the read, one row and the end, and then one for the deletes. */
TEST_F(RemoveFaults, RemovalOfADomainFailsInItsOwnWayAtEveryCallAndPause)
{
    const FaultTable failed_read =
        step_row("Unable to select data from handlers database: ", -1, before, {no_list});
    const FaultTable read =
        open_to_read_row(before) +
        handlers_statement(select_domain_sql, {{"address", "'d.test'"}}, before, {no_list}) + failed_read +
        failed_read + close_row(after);
    const FaultTable deletes =
        open_row(before, {not_added}) + begin_rows(before, {not_added}) +
        handlers_statement(delete_one_sql,
                           {{"name", "'spam'"}, {"type", "1"}, {"address", "'a@d.test'"}, {"queue", "2"}},
                           before, {not_added}) +
        step_row("Unable to execute delete record from handlers database: ", 0, before) +
        end_rows(before, {not_added}) + close_row(after);

    sweep_calls(read + deletes, remove_domain);
    sweep_busy_calls_and_pauses(9, before, after, remove_domain);
}

TEST_F(RemoveFaults, DomainWithoutHandlersRunsAnEmptyTransaction)
{
    SqliteFaults faults;

    EXPECT_EQ(remove_domain(nullptr), 0);
    EXPECT_EQ(faults.calls(),
              (Lines{"open_v2 " + store.path() + " 1", "busy_timeout 50",
                     std::string("prepare ") + select_domain_sql, "bind 1 'd.test'", "step", "finalize",
                     "close", "open " + store.path(), "busy_timeout 50", "prepare BEGIN TRANSACTION;", "step",
                     "finalize", "prepare END TRANSACTION;", "step", "finalize", "close"}));
}

/* First that of the read; then that of the deletes, where the read has been closed after a pause. */
TEST_F(RemoveFaults, FailedPauseOfAClosingAfterAReportKeepsItSilent)
{
    fail_prepare_and_pause_of_close(1, 1, remove_domain);
    fail_prepare_and_pause_of_close(2, 2, remove_domain);
}

} // namespace

} // namespace kolmo::testing
