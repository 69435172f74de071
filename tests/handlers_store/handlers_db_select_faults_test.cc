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
using testing::texts_of;

constexpr const char *to_run_sql =
    "SELECT executable, context, name FROM handlers WHERE queue=? AND type=? AND "
    "enabled=? AND address=? ORDER BY priority DESC";
constexpr const char *exact_sql = "SELECT priority, type, queue, name, address, executable, context, enabled "
                                  "FROM handlers WHERE address = ?";
constexpr const char *domain_sql =
    "SELECT priority, type, queue, name, address, executable, context, enabled "
    "FROM handlers WHERE address LIKE '%' || ? || '%'";

/* Two rows for each of the selects; what is left is the list. */
class SelectFaults : public HandlersSweep
{
protected:
    ~SelectFaults() override { handler_list_free(&list); }

    void fill() override
    {
        HandlerRecord second = handler("second", "d.test");

        second.priority = 5;
        handler_list_free(&list);
        (void)handler_list_init(&list);
        store.execute("DELETE FROM handlers");
        store.add(handler("first", "d.test"));
        store.add(second);
    }

    Lines left() override { return texts_of(list); }

    std::string open_failure() const { return "3 Unable to open database(readonly) " + store.path() + ": "; }

    /* Three steps, for two rows and the end, and the close. */
    FaultTable steps_and_close(const std::string &message) const
    {
        return {
            {"step", {message}, -1, Connection::open, none},
            {"step", {message}, -1, Connection::open, one},
            {"step", {message}, -1, Connection::open, both},
            {"close", {}, 0, Connection::closed, both},
        };
    }

    /* A failed pause after a step leaves its row unread. */
    void sweep_pauses(const Operation &operation)
    {
        sweep_own_pauses({none, none, one, both, both}, operation);
        sweep_callers_pauses({none, none, one, both}, operation);
    }

    /* A busy step is reset, whichever it was: the select starts over, and the list keeps what it had. */
    void sweep_busy_calls(const Operation &operation)
    {
        const Lines first_twice = {both[0], both[1], both[1]};
        const Lines both_twice = {both[0], both[1], both[0], both[1]};

        sweep_own_busy_calls({both, both, first_twice, both_twice, both}, operation);
    }

    HandlerList list = {};
    const Lines none = {};
    Lines one = {"2|1|1|10|first|d.test|/hook|none|0"};
    Lines both = {"2|1|1|5|second|d.test|/hook|none|0", "2|1|1|10|first|d.test|/hook|none|0"};
};

class SelectToRunFaults : public SelectFaults
{
protected:
    SelectToRunFaults()
    {
        one = {"2|1|1|0|first|d.test|/hook|none|0"};
        both = {"2|1|1|0|second|d.test|/hook|none|0", "2|1|1|0|first|d.test|/hook|none|0"};
    }

    const Operation select = [this](StoreConnection *connection) {
        const HandlerRecord filter = handler("any", "d.test");

        return handlers_db_select_to_run(connection, &list, &filter);
    };
};

class SelectByAddressFaults : public SelectFaults
{
protected:
    FaultTable table(const char *sql) const
    {
        return FaultTable{{"open_v2", {open_failure()}, -1, Connection::closed, none},
                          prepare_row(sql, none),
                          bind_row("1 'd.test'",
                                   "Unable to bind parameter 'address' to the 'SELECT' query: ", none)} +
               steps_and_close("3 Unable to select data from handlers database: ");
    }

    const Operation select_exact = [this](StoreConnection *connection) {
        return handlers_db_select_by_address(connection, &list, "d.test", true);
    };
    const Operation select_domain = [this](StoreConnection *connection) {
        return handlers_db_select_by_address(connection, &list, "a@d.test", false);
    };
};

TEST_F(SelectToRunFaults, EveryCallFailsOnce)
{
    sweep_calls(
        FaultTable{
            {"open_v2", {open_failure()}, -1, Connection::closed, none},
            prepare_row(to_run_sql, none),
            bind_row("1 2", "Unable to bind parameter 'queue' to the 'SELECT' query: ", none),
            bind_row("2 1", "Unable to bind parameter 'type' to the 'SELECT' query: ", none),
            bind_row("3 1", "Unable to bind parameter 'enabled' to the 'SELECT' query: ", none),
            bind_row("4 'd.test'", "Unable to bind parameter 'address' to the 'SELECT' query: ", none)} +
            steps_and_close("3 Unable to get data from mail handlers database: "),
        select);
}

TEST_F(SelectToRunFaults, EveryPauseFailsOnce)
{
    sweep_pauses(select);
}

TEST_F(SelectToRunFaults, EveryCallIsBusyTwice)
{
    sweep_busy_calls(select);
}

TEST_F(SelectToRunFaults, StoreIsOpenedForReadingOnly)
{
    fill();
    testing::SqliteFaults faults;

    EXPECT_EQ(select(nullptr), 0);
    EXPECT_EQ(faults.calls().at(0), "open_v2 " + store.path() + ' ' + std::to_string(SQLITE_OPEN_READONLY));
    EXPECT_EQ(faults.calls().at(1), "busy_timeout 50");
}

TEST_F(SelectByAddressFaults, EveryCallFailsOnceInTheExactForm)
{
    sweep_calls(table(exact_sql), select_exact);
}

TEST_F(SelectByAddressFaults, EveryCallFailsOnceInTheDomainForm)
{
    sweep_calls(table(domain_sql), select_domain);
}

TEST_F(SelectByAddressFaults, EveryPauseFailsOnce)
{
    sweep_pauses(select_exact);
    sweep_pauses(select_domain);
}

TEST_F(SelectByAddressFaults, EveryCallIsBusyTwice)
{
    sweep_busy_calls(select_exact);
    sweep_busy_calls(select_domain);
}

TEST_F(SelectByAddressFaults, StoreIsOpenedForReadingOnly)
{
    fill();
    testing::SqliteFaults faults;

    EXPECT_EQ(select_exact(nullptr), 0);
    EXPECT_EQ(select_domain(nullptr), 0);
    EXPECT_EQ(faults.count("open_v2 " + store.path() + ' ' + std::to_string(SQLITE_OPEN_READONLY)), 2);
    EXPECT_EQ(faults.count("open"), 0);
}

} // namespace

} // namespace kolmo
