#include <string>

#include <gtest/gtest.h>

#include "handlers_store/handlers_db.h"
#include "handlers_store/owned_handler_list.h"
#include "tests/handlers_store/handlers_sweep.h"
#include "tests/handlers_store/handlers_texts.h"

namespace kolmo
{

namespace
{

using namespace testing;

/* What the insert does and says up to its step, for an odd_record of this name. */
FaultTable insert_table(const std::string &name, const Lines &before)
{
    return statement_rows(insert_sql,
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
    static int act(HandlerAction action, StoreConnection *connection, const HandlerRecord &source)
    {
        HandlerRecord *const record = handler_record_clone(&source);
        const int result = action(connection, record);

        handler_record_free(record);
        return result;
    }

    const Lines before = {"a@d.test spam", "b@d.test spam"};
    const std::string refused_insert = "Unable to execute insert record into handlers database: ";
    const std::string refused_delete = "Unable to execute delete record from handlers database: ";
};

class InsertActionFaults : public ActionSweep
{
protected:
    const Operation insert = [](StoreConnection *connection) {
        return act(handlers_db_insert_action, connection, odd_record("odd"));
    };
    const Lines after = {"a@d.test odd", "a@d.test spam", "b@d.test spam"};
};

class DeleteActionFaults : public ActionSweep
{
protected:
    const Operation delete_one = [](StoreConnection *connection) {
        return act(handlers_db_delete_action, connection, handler("spam", "A@d.test"));
    };
    const Operation delete_everywhere = [](StoreConnection *connection) {
        return act(handlers_db_delete_action, connection, handler("spam", ""));
    };
    const Lines after_one = {"b@d.test spam"};
    const Lines after_everywhere = {};
};

/* A batch of two. */
class RunActionsFaults : public ActionSweep
{
protected:
    RunActionsFaults()
    {
        for (const char *name : {"second", "first"}) {
            const HandlerRecord record = odd_record(name);

            EXPECT_EQ(handler_list_append(list.get(), &record), 0);
        }
    }

    OwnedHandlerList list;
    const Operation run = [this](StoreConnection *connection) {
        return handlers_db_run_actions(list.get(), connection, handlers_db_insert_action);
    };
    const Lines after = {"a@d.test first", "a@d.test second", "a@d.test spam", "b@d.test spam"};
};

TEST_F(InsertActionFaults, EveryCallFailsOnce)
{
    sweep_calls(FaultTable{open_row(before)} + insert_table("odd", before) +
                    FaultTable{step_row(refused_insert, -1, before), close_row(after)},
                insert);
}

TEST_F(InsertActionFaults, EveryPauseFailsOnce)
{
    sweep_pauses_to_commit(1, before, after, insert);
}

TEST_F(InsertActionFaults, EveryCallIsBusyTwice)
{
    sweep_own_busy_calls(repeat({{3, after}}), insert);
}

TEST_F(DeleteActionFaults, EveryCallFailsOnceForOneAddress)
{
    const Bound bound = {{"name", "'spam'"}, {"type", "1"}, {"address", "'A@d.test'"}, {"queue", "2"}};

    sweep_calls(FaultTable{open_row(before)} + statement_rows(delete_one_sql, bound, before) +
                    FaultTable{step_row(refused_delete, -1, before), close_row(after_one)},
                delete_one);
}

TEST_F(DeleteActionFaults, EveryCallFailsOnceForEveryAddress)
{
    const Bound bound = {{"name", "'spam'"}, {"type", "1"}, {"queue", "2"}};

    sweep_calls(FaultTable{open_row(before)} + statement_rows(delete_everywhere_sql, bound, before) +
                    FaultTable{step_row(refused_delete, -1, before), close_row(after_everywhere)},
                delete_everywhere);
}

TEST_F(DeleteActionFaults, EveryPauseFailsOnceForOneAddress)
{
    sweep_pauses_to_commit(1, before, after_one, delete_one);
}

TEST_F(DeleteActionFaults, EveryPauseFailsOnceForEveryAddress)
{
    sweep_pauses_to_commit(1, before, after_everywhere, delete_everywhere);
}

TEST_F(DeleteActionFaults, EveryCallIsBusyTwice)
{
    sweep_own_busy_calls(repeat({{3, after_one}}), delete_one);
    sweep_own_busy_calls(repeat({{3, after_everywhere}}), delete_everywhere);
}

/* A prepare or bind that fails inside the batch ends it; a refused row does not. */
TEST_F(RunActionsFaults, EveryCallFailsOnce)
{
    const Lines without_first = {"a@d.test second", "a@d.test spam", "b@d.test spam"};
    const Lines without_second = {"a@d.test first", "a@d.test spam", "b@d.test spam"};

    sweep_calls(FaultTable{open_row(before)} + begin_rows(before) + insert_table("first", before) +
                    FaultTable{step_row(refused_insert, 0, without_first)} + insert_table("second", before) +
                    FaultTable{step_row(refused_insert, 0, without_second)} + end_rows(before) +
                    FaultTable{close_row(after)},
                run);
}

/* BEGIN, two inserts and END, a prepare and a step each; only the step of END commits. */
TEST_F(RunActionsFaults, EveryPauseFailsOnce)
{
    sweep_pauses_to_commit(7, before, after, run);
}

TEST_F(RunActionsFaults, EveryCallIsBusyTwice)
{
    sweep_own_busy_calls(repeat({{9, after}}), run);
}

TEST_F(RunActionsFaults, EmptyAndNullListsRunAnEmptyTransaction)
{
    OwnedHandlerList empty;

    for (const HandlerList *actions :
         {static_cast<const HandlerList *>(empty.get()), static_cast<const HandlerList *>(nullptr)}) {
        SqliteFaults faults;

        EXPECT_EQ(handlers_db_run_actions(actions, nullptr, handlers_db_insert_action), 0);
        EXPECT_EQ(faults.calls(),
                  (Lines{"open " + store.path(), "busy_timeout 50", "prepare BEGIN TRANSACTION;", "step",
                         "finalize", "prepare END TRANSACTION;", "step", "finalize", "close"}));
    }
}

} // namespace

} // namespace kolmo
