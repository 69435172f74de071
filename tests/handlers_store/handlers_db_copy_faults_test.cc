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
using testing::FaultTable;
using testing::handler;
using testing::HandlersSweep;
using testing::Lines;
using testing::prepare_row;
using testing::repeat;
using testing::SqliteCall;
using testing::SqliteFaults;

constexpr const char *mailbox_sql =
    "SELECT priority, type, queue, name, executable, context, enabled FROM handlers WHERE address=?";
constexpr const char *domain_sql =
    "SELECT priority, type, queue, name, executable, context, enabled, address "
    "FROM handlers WHERE address LIKE '%' || ? || '%'";
constexpr const char *insert_sql =
    "INSERT OR REPLACE INTO handlers(priority, name, type, address, queue, executable, context, protected, "
    "enabled) VALUES(?, ?, ?, LOWER(?), ?, ?, ?, ?, ?)";

/* The copy's own line, after the driver's or the action's. */
const Lines not_added = {"3 Unable to add records into handlers database"};

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
        const std::string failed_read = "3 Unable to select data from handlers database: ";

        return {
            {"open", {"3 Unable to open database " + store.path() + ": "}, -1, Connection::closed, before},
            prepare_row(sql, before),
            bind_row("1 '" + key + "'", "Unable to bind parameter 'address' to the 'SELECT' query: ", before),
            {"step", {failed_read}, -1, Connection::open, before},
            {"step", {failed_read}, -1, Connection::open, before},
        };
    }

    FaultTable insert_row(const std::string &bound, const std::string &name) const
    {
        return {bind_row(bound, "Unable to bind parameter '" + name + "' to the 'INSERT' query: ", before,
                         not_added)};
    }

    FaultTable write_table(const std::string &target) const
    {
        const Lines after = {"a@d.test spam", target + " spam"};
        const FaultTable begin = {
            prepare_row("BEGIN TRANSACTION;", before, not_added),
            {"step",
             {"3 Unable to begin sqlite transaction: ", not_added[0]},
             -1,
             Connection::closed,
             before},
        };
        const FaultTable insert = FaultTable{prepare_row(insert_sql, before, not_added)} +
                                  insert_row("1 10", "priority") + insert_row("2 'spam'", "name") +
                                  insert_row("3 1", "type") + insert_row("4 '" + target + "'", "address") +
                                  insert_row("5 2", "queue") + insert_row("6 '/hook'", "address") +
                                  insert_row("7 'none'", "context") +
                                  insert_row("8 0", "protect_on_restore") + insert_row("9 1", "enabled");
        const FaultTable end = {
            {"step",
             {"3 Unable to execute insert record into handlers database: "},
             0,
             Connection::open,
             before},
            prepare_row("END TRANSACTION;", before, not_added),
            {"step", {"3 Unable to end sqlite transaction: ", not_added[0]}, -1, Connection::closed, before},
            {"close", {}, 0, Connection::closed, after},
        };

        return begin + insert + end;
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
    sweep_calls(read_table(mailbox_sql, "a@d.test") + write_table("x@t.test"), copy_to_mailbox);
}

TEST_F(CopyFaults, EveryCallFailsOnceForAMailboxOfTheSameName)
{
    sweep_calls(read_table(mailbox_sql, "a@d.test") + write_table("a@t.test"), copy_mailbox);
}

TEST_F(CopyFaults, EveryCallFailsOnceForADomain)
{
    sweep_calls(read_table(domain_sql, "d.test") + write_table("a@t.test"), copy_domain);
}

/* The read, BEGIN, one insert, END and the close; only the step of END commits. */
TEST_F(CopyFaults, EveryPauseFailsOnceAndNothingMoreIsSaid)
{
    const Lines after = {"a@d.test spam", "a@t.test spam"};

    for (const Operation &copy : {copy_mailbox, copy_domain}) {
        sweep_own_pauses(repeat({{8, before}, {2, after}}), copy);
        sweep_callers_pauses(repeat({{8, before}, {1, after}}), copy);
    }
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
              (Lines{"open " + store.path(), "busy_timeout 50", std::string("prepare ") + mailbox_sql,
                     "bind 1 'a@d.test'", "step", "finalize", "prepare BEGIN TRANSACTION;", "step",
                     "finalize", "prepare END TRANSACTION;", "step", "finalize", "close"}));
}

/* The driver reports, and the pause of its close fails: from there on nothing is said. */
TEST_F(CopyFaults, FailedPauseOfTheClosingAfterAReportKeepsTheCopySilent)
{
    fill();
    SqliteFaults faults;

    faults.fail_call(SqliteCall::prepare, 2); /* BEGIN */
    faults.be_busy(SqliteCall::close, 1);
    faults.fail_pause(1);
    EXPECT_EQ(copy_domain(nullptr), -1);
    EXPECT_EQ(faults.calls().back(), "pause 10000");
    EXPECT_EQ(log.take_one().rfind("3 Unable to prepare SQL statement for query 'BEGIN TRANSACTION;': ", 0),
              0U);
}

} // namespace

} // namespace kolmo
