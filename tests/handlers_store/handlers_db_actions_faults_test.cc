#include <string>

#include "handlers_store/handlers_db.h"
#include "handlers_store/owned_handler_list.h"
#include "tests/handlers_store/handlers_sweep.h"

namespace kolmo::testing
{

namespace
{

/* What the insert does and says up to its step, for an odd_record of this name. */
FaultTable insert_table(const std::string &name, const Lines &before)
{
    return handlers_statement(insert_sql,
                              {{"priority", "-7"},
                               {"name", "'" + name + "'"},
                               {"type", "3"},
                               {"address", "'A@d.test'"},
                               {"queue", "9"},
                               {"address", "'/program'"},
                               {"context", "'argument'"},
                               {"protect_on_restore", "1"},
                               {"enabled", "0"}},
                              before);
}

/* Values that tell the columns apart. */
HandlerRecord odd_record(const char *name)
{
    return {-7, 3, 9, name, "A@d.test", "/program", "argument", true, false};
}

class ActionSweep : public HandlersSweep
{
protected:
    void fill() override
    {
        store.execute("DELETE FROM handlers");
        store.add(handler("spam", "a@d.test"));
        store.add(handler("spam", "b@d.test"));
    }

    /* Runs an action on a record with texts of its own. */
    static Operation act(HandlerAction action, const HandlerRecord &source)
    {
        return [=](StoreConnection *connection) {
            HandlerRecord *const record = handler_record_clone(&source);
            const int result = action(connection, record);

            handler_record_free(record);
            return result;
        };
    }

    const Lines before = {"a@d.test spam", "b@d.test spam"};
    const std::string refused_insert = "Unable to execute insert record into handlers database: ";
    const std::string refused_delete = "Unable to execute delete record from handlers database: ";
};

TEST_F(ActionSweep, InsertFailsInItsOwnWayAtEveryCallAndPause)
{
    const Operation insert = act(handlers_db_insert_action, odd_record("odd"));
    const Lines after = {"a@d.test odd", "a@d.test spam", "b@d.test spam"};

    sweep_calls(open_row(before) + insert_table("odd", before) + step_row(refused_insert, -1, before) +
                    close_row(after),
                insert);
    sweep_busy_calls_and_pauses(1, before, after, insert);
}

TEST_F(ActionSweep, DeleteOfOneAddressFailsInItsOwnWayAtEveryCallAndPause)
{
    const Operation delete_one = act(handlers_db_delete_action, handler("spam", "A@d.test"));
    const Lines after = {"b@d.test spam"};

    sweep_calls(
        open_row(before) +
            handlers_statement(delete_one_sql,
                               {{"name", "'spam'"}, {"type", "1"}, {"address", "'A@d.test'"}, {"queue", "2"}},
                               before) +
            step_row(refused_delete, -1, before) + close_row(after),
        delete_one);
    sweep_busy_calls_and_pauses(1, before, after, delete_one);
}

TEST_F(ActionSweep, DeleteOfEveryAddressFailsInItsOwnWayAtEveryCallAndPause)
{
    const Operation delete_everywhere = act(handlers_db_delete_action, handler("spam", ""));

    sweep_calls(open_row(before) +
                    handlers_statement(delete_everywhere_sql,
                                       {{"name", "'spam'"}, {"type", "1"}, {"queue", "2"}}, before) +
                    step_row(refused_delete, -1, before) + close_row({}),
                delete_everywhere);
    sweep_busy_calls_and_pauses(1, before, {}, delete_everywhere);
}

/* A prepare or bind that fails inside the batch ends it; a refused row does not.  Only END's step commits. */
TEST_F(ActionSweep, BatchOfTwoFailsInItsOwnWayAtEveryCallAndPause)
{
    const Lines without_first = {"a@d.test second", "a@d.test spam", "b@d.test spam"};
    const Lines without_second = {"a@d.test first", "a@d.test spam", "b@d.test spam"};
    const Lines after = {"a@d.test first", "a@d.test second", "a@d.test spam", "b@d.test spam"};
    OwnedHandlerList list;
    const Operation run = [&](StoreConnection *connection) {
        return handlers_db_run_actions(list.get(), connection, handlers_db_insert_action);
    };

    for (const char *name : {"second", "first"}) {
        const HandlerRecord record = odd_record(name);

        ASSERT_EQ(handler_list_append(list.get(), &record), 0);
    }
    sweep_calls(open_row(before) + begin_rows(before) + insert_table("first", before) +
                    step_row(refused_insert, 0, without_first) + insert_table("second", before) +
                    step_row(refused_insert, 0, without_second) + end_rows(before) + close_row(after),
                run);
    sweep_busy_calls_and_pauses(7, before, after, run);
}

TEST_F(ActionSweep, EmptyAndNullListsRunAnEmptyTransaction)
{
    OwnedHandlerList empty;

    for (const HandlerList *actions :
         {static_cast<const HandlerList *>(empty.get()), static_cast<const HandlerList *>(nullptr)}) {
        sweep_calls(open_row(before) + begin_rows(before) + end_rows(before) + close_row(before),
                    [&](StoreConnection *connection) {
                        return handlers_db_run_actions(actions, connection, handlers_db_insert_action);
                    });
    }
}

} // namespace

} // namespace kolmo::testing
