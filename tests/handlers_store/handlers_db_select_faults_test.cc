#include <string>

#include <sqlite3.h>

#include "handlers_store/handlers_db.h"
#include "tests/handlers_store/handlers_sweep.h"

namespace kolmo::testing
{

namespace
{

/* Two rows for each of the selects; looked at is the list. */
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

    Lines contents() override { return texts_of(list); }

    /*
     * Three steps, for two rows and the end, and the close.  A failed pause after a step leaves its row
     * unread; a busy step is reset, whichever it was: the select starts over, and the list keeps what it had.
     */
    void sweep(const FaultTable &start, const std::string &message, const Operation &select)
    {
        sweep_calls(open_to_read_row({}) + start + step_row(message, -1, {}) + step_row(message, -1, one) +
                        step_row(message, -1, both) + close_row(both),
                    select);
        sweep_pauses({{}, {}, one, both, both}, select);
        sweep_busy_calls(
            {both, both, {both[0], both[1], both[1]}, {both[0], both[1], both[0], both[1]}, both}, select);
    }

    HandlerList list = {};
    Lines one = {"2|1|1|10|first|d.test|/hook|none|0"};
    Lines both = {"2|1|1|5|second|d.test|/hook|none|0", "2|1|1|10|first|d.test|/hook|none|0"};
};

TEST_F(SelectFaults, SelectToRunFailsInItsOwnWayAtEveryCallAndPause)
{
    one = {"2|1|1|0|first|d.test|/hook|none|0"};
    both = {"2|1|1|0|second|d.test|/hook|none|0", "2|1|1|0|first|d.test|/hook|none|0"};
    sweep(handlers_statement(select_to_run_sql,
                             {{"queue", "2"}, {"type", "1"}, {"enabled", "1"}, {"address", "'d.test'"}}, {}),
          "Unable to get data from mail handlers database: ", [this](StoreConnection *connection) {
              const HandlerRecord filter = handler("any", "d.test");

              return handlers_db_select_to_run(connection, &list, &filter);
          });
}

TEST_F(SelectFaults, BothSelectsByAddressFailInTheirOwnWayAtEveryCallAndPause)
{
    for (const bool exact : {true, false}) {
        sweep(handlers_statement(exact ? select_exact_sql : select_domain_sql, {{"address", "'d.test'"}}, {}),
              "Unable to select data from handlers database: ", [&](StoreConnection *connection) {
                  return handlers_db_select_by_address(connection, &list, exact ? "d.test" : "a@d.test",
                                                       exact);
              });
    }
}

} // namespace

} // namespace kolmo::testing
