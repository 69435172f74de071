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

    /* Three steps, for two rows and the end, and the close. */
    FaultTable steps_and_close(const std::string &message) const
    {
        return {step_row(message, -1, none), step_row(message, -1, one), step_row(message, -1, both),
                close_row(both)};
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
        return FaultTable{open_to_read_row(none)} + statement_rows(sql, {{"address", "'d.test'"}}, none) +
               steps_and_close("Unable to select data from handlers database: ");
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
    const Bound bound = {{"queue", "2"}, {"type", "1"}, {"enabled", "1"}, {"address", "'d.test'"}};

    sweep_calls(FaultTable{open_to_read_row(none)} + statement_rows(select_to_run_sql, bound, none) +
                    steps_and_close("Unable to get data from mail handlers database: "),
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
    SqliteFaults faults;

    EXPECT_EQ(select(nullptr), 0);
    EXPECT_EQ(faults.calls().at(0), "open_v2 " + store.path() + ' ' + std::to_string(SQLITE_OPEN_READONLY));
    EXPECT_EQ(faults.calls().at(1), "busy_timeout 50");
}

TEST_F(SelectByAddressFaults, EveryCallFailsOnceInTheExactForm)
{
    sweep_calls(table(select_exact_sql), select_exact);
}

TEST_F(SelectByAddressFaults, EveryCallFailsOnceInTheDomainForm)
{
    sweep_calls(table(select_domain_sql), select_domain);
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
    SqliteFaults faults;

    EXPECT_EQ(select_exact(nullptr), 0);
    EXPECT_EQ(select_domain(nullptr), 0);
    EXPECT_EQ(faults.count("open_v2 " + store.path() + ' ' + std::to_string(SQLITE_OPEN_READONLY)), 2);
    EXPECT_EQ(faults.count("open"), 0);
}

} // namespace

} // namespace kolmo
