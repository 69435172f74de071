#include <string>

#include <gtest/gtest.h>

#include "handlers_store/handlers_db.h"
#include "handlers_store/owned_handler_list.h"
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

constexpr const char *insert_sql =
    "INSERT OR REPLACE INTO handlers(priority, name, type, address, queue, executable, context, protected, "
    "enabled) VALUES(?, ?, ?, LOWER(?), ?, ?, ?, ?, ?)";
constexpr const char *delete_one_sql =
    "DELETE FROM handlers WHERE name=? AND type=? AND address=LOWER(?) AND queue=?";
constexpr const char *delete_everywhere_sql = "DELETE FROM handlers WHERE name=? AND type=? AND queue=?";

/* What each action does and says up to its step, for a record called `name`. */
FaultTable insert_table(const std::string &name, const Lines &before)
{
    return {
        prepare_row(insert_sql, before),
        bind_row("1 -7", "Unable to bind parameter 'priority' to the 'INSERT' query: ", before),
        bind_row("2 '" + name + "'", "Unable to bind parameter 'name' to the 'INSERT' query: ", before),
        bind_row("3 3", "Unable to bind parameter 'type' to the 'INSERT' query: ", before),
        bind_row("4 'A@d.test'", "Unable to bind parameter 'address' to the 'INSERT' query: ", before),
        bind_row("5 9", "Unable to bind parameter 'queue' to the 'INSERT' query: ", before),
        bind_row("6 '/program'", "Unable to bind parameter 'address' to the 'INSERT' query: ", before),
        bind_row("7 'argument'", "Unable to bind parameter 'context' to the 'INSERT' query: ", before),
        bind_row("8 1", "Unable to bind parameter 'protect_on_restore' to the 'INSERT' query: ", before),
        bind_row("9 0", "Unable to bind parameter 'enabled' to the 'INSERT' query: ", before),
    };
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

    std::string open_failure() const { return "3 Unable to open database " + store.path() + ": "; }

    /* Runs an action on a record with texts of its own. */
    static int act(HandlerAction action, StoreConnection *connection, const HandlerRecord &source)
    {
        HandlerRecord *const record = handler_record_clone(&source);
        const int result = action(connection, record);

        handler_record_free(record);
        return result;
    }

    const Lines before = {"a@d.test spam", "b@d.test spam"};
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
    const std::string refused = "3 Unable to execute delete record from handlers database: ";
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
    const FaultTable table = FaultTable{{"open", {open_failure()}, -1, Connection::closed, before}} +
                             insert_table("odd", before) +
                             FaultTable{{"step",
                                         {"3 Unable to execute insert record into handlers database: "},
                                         -1,
                                         Connection::open,
                                         before},
                                        {"close", {}, 0, Connection::closed, after}};

    sweep_calls(table, insert);
}

TEST_F(InsertActionFaults, EveryPauseFailsOnce)
{
    sweep_own_pauses(repeat({{1, before}, {2, after}}), insert);
    sweep_callers_pauses(repeat({{1, before}, {1, after}}), insert);
}

TEST_F(InsertActionFaults, EveryCallIsBusyTwice)
{
    sweep_own_busy_calls(repeat({{3, after}}), insert);
}

TEST_F(DeleteActionFaults, EveryCallFailsOnceForOneAddress)
{
    sweep_calls(
        {{"open", {open_failure()}, -1, Connection::closed, before},
         prepare_row(delete_one_sql, before),
         bind_row("1 'spam'", "Unable to bind parameter 'name' to the 'DELETE' query: ", before),
         bind_row("2 1", "Unable to bind parameter 'type' to the 'DELETE' query: ", before),
         bind_row("3 'A@d.test'", "Unable to bind parameter 'address' to the 'DELETE' query: ", before),
         bind_row("4 2", "Unable to bind parameter 'queue' to the 'DELETE' query: ", before),
         {"step", {refused}, -1, Connection::open, before},
         {"close", {}, 0, Connection::closed, after_one}},
        delete_one);
}

TEST_F(DeleteActionFaults, EveryCallFailsOnceForEveryAddress)
{
    sweep_calls({{"open", {open_failure()}, -1, Connection::closed, before},
                 prepare_row(delete_everywhere_sql, before),
                 bind_row("1 'spam'", "Unable to bind parameter 'name' to the 'DELETE' query: ", before),
                 bind_row("2 1", "Unable to bind parameter 'type' to the 'DELETE' query: ", before),
                 bind_row("3 2", "Unable to bind parameter 'queue' to the 'DELETE' query: ", before),
                 {"step", {refused}, -1, Connection::open, before},
                 {"close", {}, 0, Connection::closed, after_everywhere}},
                delete_everywhere);
}

TEST_F(DeleteActionFaults, EveryPauseFailsOnceForOneAddress)
{
    sweep_own_pauses(repeat({{1, before}, {2, after_one}}), delete_one);
    sweep_callers_pauses(repeat({{1, before}, {1, after_one}}), delete_one);
}

TEST_F(DeleteActionFaults, EveryPauseFailsOnceForEveryAddress)
{
    sweep_own_pauses(repeat({{1, before}, {2, after_everywhere}}), delete_everywhere);
    sweep_callers_pauses(repeat({{1, before}, {1, after_everywhere}}), delete_everywhere);
}

TEST_F(DeleteActionFaults, EveryCallIsBusyTwice)
{
    sweep_own_busy_calls(repeat({{3, after_one}}), delete_one);
    sweep_own_busy_calls(repeat({{3, after_everywhere}}), delete_everywhere);
}

/* A prepare or bind that fails inside the batch ends it; a refused row does not. */
TEST_F(RunActionsFaults, EveryCallFailsOnce)
{
    const std::string refused = "3 Unable to execute insert record into handlers database: ";
    const FaultTable begin = {
        {"open", {open_failure()}, -1, Connection::closed, before},
        prepare_row("BEGIN TRANSACTION;", before),
        {"step", {"3 Unable to begin sqlite transaction: "}, -1, Connection::closed, before},
    };
    const FaultTable first_step = {
        {"step", {refused}, 0, Connection::open, {"a@d.test second", "a@d.test spam", "b@d.test spam"}}};
    const FaultTable second_step = {
        {"step", {refused}, 0, Connection::open, {"a@d.test first", "a@d.test spam", "b@d.test spam"}}};
    const FaultTable end = {
        prepare_row("END TRANSACTION;", before),
        {"step", {"3 Unable to end sqlite transaction: "}, -1, Connection::closed, before},
        {"close", {}, 0, Connection::closed, after},
    };

    sweep_calls(begin + insert_table("first", before) + first_step + insert_table("second", before) +
                    second_step + end,
                run);
}

TEST_F(RunActionsFaults, EveryPauseFailsOnce)
{
    /* BEGIN, two inserts and END, a prepare and a step each; only the step of END commits. */
    sweep_own_pauses(repeat({{7, before}, {2, after}}), run);
    sweep_callers_pauses(repeat({{7, before}, {1, after}}), run);
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
        testing::SqliteFaults faults;

        EXPECT_EQ(handlers_db_run_actions(actions, nullptr, handlers_db_insert_action), 0);
        EXPECT_EQ(faults.calls(),
                  (Lines{"open " + store.path(), "busy_timeout 50", "prepare BEGIN TRANSACTION;", "step",
                         "finalize", "prepare END TRANSACTION;", "step", "finalize", "close"}));
    }
}

} // namespace

} // namespace kolmo
