#include <string>

#include <gtest/gtest.h>

#include "handlers_store/handlers_db.h"
#include "tests/handlers_store/handlers_sweep.h"

namespace kolmo
{

namespace
{

using testing::bind_row;
using testing::Connection;
using testing::FaultRow;
using testing::FaultTable;
using testing::handler;
using testing::HandlersSweep;
using testing::Lines;
using testing::prepare_row;
using testing::repeat;
using testing::SqliteCall;
using testing::SqliteFaults;

constexpr const char *by_name_sql = "DELETE FROM handlers WHERE name=?";
constexpr const char *domain_sql =
    "SELECT priority, type, queue, name, address, executable, context, enabled "
    "FROM handlers WHERE address LIKE '%' || ? || '%'";
constexpr const char *delete_sql =
    "DELETE FROM handlers WHERE name=? AND type=? AND address=LOWER(?) AND queue=?";

const Lines no_list = {"3 Get handlers list"};
const Lines not_added = {"3 Unable to add records into handlers database"};

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
        const std::string failed_read = "3 Unable to select data from handlers database: ";

        return {
            {"open_v2",
             {"3 Unable to open database(readonly) " + store.path() + ": "},
             -1,
             Connection::closed,
             before},
            prepare_row(domain_sql, before, no_list),
            bind_row("1 'd.test'", "Unable to bind parameter 'address' to the 'SELECT' query: ", before,
                     no_list),
            {"step", {failed_read, no_list[0]}, -1, Connection::open, before},
            {"step", {failed_read, no_list[0]}, -1, Connection::open, before},
            {"close", {}, 0, Connection::closed, after},
        };
    }

    FaultRow delete_row(const std::string &bound, const std::string &name) const
    {
        return bind_row(bound, "Unable to bind parameter '" + name + "' to the 'DELETE' query: ", before,
                        not_added);
    }

    FaultTable delete_table() const
    {
        return {
            {"open",
             {"3 Unable to open database " + store.path() + ": ", not_added[0]},
             -1,
             Connection::closed,
             before},
            prepare_row("BEGIN TRANSACTION;", before, not_added),
            {"step",
             {"3 Unable to begin sqlite transaction: ", not_added[0]},
             -1,
             Connection::closed,
             before},
            prepare_row(delete_sql, before, not_added),
            delete_row("1 'spam'", "name"),
            delete_row("2 1", "type"),
            delete_row("3 'a@d.test'", "address"),
            delete_row("4 2", "queue"),
            {"step",
             {"3 Unable to execute delete record from handlers database: "},
             0,
             Connection::open,
             before},
            prepare_row("END TRANSACTION;", before, not_added),
            {"step", {"3 Unable to end sqlite transaction: ", not_added[0]}, -1, Connection::closed, before},
            {"close", {}, 0, Connection::closed, after},
        };
    }

    const Lines before = {"a@d.test spam", "a@other.test virus"};
    const Lines after = {"a@other.test virus"};
    const Operation remove_by_name = [](StoreConnection *connection) {
        return handlers_db_exec_with_param(connection, by_name_sql, "spam");
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
    sweep_calls(
        {{"open", {"3 Unable to open database " + store.path() + ": "}, -1, Connection::closed, before},
         prepare_row(by_name_sql, before),
         bind_row("1 'spam'", "Unable to bind parameter param to query: ", before),
         {"step", {"3 Unable to execute do action on handlers database: "}, -1, Connection::open, before},
         {"close", {}, 0, Connection::closed, after}},
        remove_by_name);
}

TEST_F(ExecWithParamFaults, EveryPauseFailsOnce)
{
    sweep_own_pauses(repeat({{1, before}, {2, after}}), remove_by_name);
    sweep_callers_pauses(repeat({{1, before}, {1, after}}), remove_by_name);
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
                     std::string("prepare ") + domain_sql, "bind 1 'd.test'", "step", "finalize", "close",
                     "open " + store.path(), "busy_timeout 50", "prepare BEGIN TRANSACTION;", "step",
                     "finalize", "prepare END TRANSACTION;", "step", "finalize", "close"}));
}

/* The read reports, and the pause of its close fails: from there on nothing is said. */
TEST_F(RemoveDomainFaults, FailedPauseOfTheReadsClosingAfterAReportKeepsItSilent)
{
    fill();
    SqliteFaults faults;

    faults.fail_call(SqliteCall::prepare, 1);
    faults.be_busy(SqliteCall::close, 1);
    faults.fail_pause(1);
    EXPECT_EQ(remove_domain(nullptr), -1);
    EXPECT_EQ(faults.calls().back(), "pause 10000");
    EXPECT_EQ(log.take_one().rfind("3 Unable to prepare SQL statement for query 'SELECT ", 0), 0U);
}

TEST_F(RemoveDomainFaults, FailedPauseOfTheBatchsClosingAfterAReportKeepsItSilent)
{
    fill();
    SqliteFaults faults;

    faults.fail_call(SqliteCall::prepare, 2); /* BEGIN */
    faults.be_busy(SqliteCall::close, 1);
    faults.fail_pause(2);
    EXPECT_EQ(remove_domain(nullptr), -1);
    EXPECT_EQ(faults.calls().back(), "pause 10000");
    EXPECT_EQ(log.take_one().rfind("3 Unable to prepare SQL statement for query 'BEGIN TRANSACTION;': ", 0),
              0U);
}

} // namespace

} // namespace kolmo
