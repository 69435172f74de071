#include <string>

#include "handlers_store/handlers_db.h"
#include "tests/handlers_store/handlers_sweep.h"

namespace kolmo::testing
{

namespace
{

class CopyFaults : public HandlersSweep
{
protected:
    void fill() override
    {
        store.execute("DELETE FROM handlers");
        store.add(handler("spam", "a@d.test"));
    }

    static Operation copy(const char *mailbox, const char *to_mailbox)
    {
        return [=](StoreConnection *connection) {
            return handlers_db_copy(connection, mailbox, "d.test", to_mailbox, "t.test");
        };
    }
};

/*
 * One row and the end are read.  The copy's own line comes after the driver's or the action's.  Only the step
 * of END commits.
 */
TEST_F(CopyFaults, CopyFailsInItsOwnWayAtEveryCallAndPause)
{
    const Lines before = {"a@d.test spam"};
    const FaultTable failed_read = step_row("Unable to select data from handlers database: ", -1, before);
    const struct {
        const char *mailbox;
        const char *to_mailbox;
        const char *sql;
        const char *key;
        std::string target;
    } rows[] = {{"a", "x", copy_mailbox_sql, "'a@d.test'", "x@t.test"},
                {"a", nullptr, copy_mailbox_sql, "'a@d.test'", "a@t.test"},
                {nullptr, nullptr, copy_domain_sql, "'d.test'", "a@t.test"}};

    for (const auto &row : rows) {
        const Operation operation = copy(row.mailbox, row.to_mailbox);
        const Lines after = {"a@d.test spam", row.target + " spam"};
        const FaultTable insert = handlers_statement(insert_sql,
                                                     {{"priority", "10"},
                                                      {"name", "'spam'"},
                                                      {"type", "1"},
                                                      {"address", "'" + row.target + "'"},
                                                      {"queue", "2"},
                                                      {"address", "'/hook'"},
                                                      {"context", "'none'"},
                                                      {"protect_on_restore", "0"},
                                                      {"enabled", "1"}},
                                                     before, {not_added});

        sweep_calls(open_row(before) + handlers_statement(row.sql, {{"address", row.key}}, before) +
                        failed_read + failed_read + begin_rows(before, {not_added}) + insert +
                        step_row("Unable to execute insert record into handlers database: ", 0, before) +
                        end_rows(before, {not_added}) + close_row(after),
                    operation);
        sweep_busy_calls_and_pauses(8, before, after, operation);
    }
}

TEST_F(CopyFaults, NothingToCopyRunsAnEmptyTransaction)
{
    SqliteFaults faults;

    EXPECT_EQ(copy("a", nullptr)(nullptr), 0);
    EXPECT_EQ(faults.calls(),
              (Lines{"open " + store.path(), "busy_timeout 50", std::string("prepare ") + copy_mailbox_sql,
                     "bind 1 'a@d.test'", "step", "finalize", "prepare BEGIN TRANSACTION;", "step",
                     "finalize", "prepare END TRANSACTION;", "step", "finalize", "close"}));
}

/* The driver reports, and the pause of its close fails: from there on nothing is said. */
TEST_F(CopyFaults, FailedPauseOfTheClosingAfterAReportKeepsTheCopySilent)
{
    fail_prepare_and_pause_of_close(2, 1, copy(nullptr, nullptr));
}

} // namespace

} // namespace kolmo::testing
