/*
 * What the operations on the handlers store have in common: which connection they work on, and how they fail
 * when the store is not there, locked or without its table.
 */
#include "handlers_store/handlers_db.h"

#include <ostream>
#include <string>

#include <sqlite3.h>

#include "handlers_store/owned_handler_list.h"
#include "tests/handlers_store/handlers_texts.h"
#include "tests/support/handlers_store_fixture.h"
#include "tests/support/other_process_lock.h"

namespace kolmo::testing
{

namespace
{

/* In a store that has the handler spam of a@d.test and of d.test. */
struct Operation {
    const char *name;
    int (*run)(StoreConnection *connection, HandlerList *list);
    std::string first_sql; /* its first statement, and the first that needs the table */
    std::string table_sql;
    Lines contents;         /* "address name" in the store, */
    Lines found;            /* and in the list */
    bool reads = false;     /* opens the store for reading only */
    Lines also_logged = {}; /* after a failed statement */
};

std::ostream &operator<<(std::ostream &stream, const Operation &operation)
{
    return stream << operation.name;
}

int act(HandlerAction action, StoreConnection *connection, const char *address)
{
    const HandlerRecord source = handler("spam", address);
    HandlerRecord *const record = handler_record_clone(&source);
    const int result = action(connection, record);

    handler_record_free(record);
    return result;
}

int run_batch(StoreConnection *connection, HandlerList *)
{
    OwnedHandlerList batch;

    for (const char *address : {"b@d.test", "c@d.test"}) {
        const HandlerRecord record = handler("spam", address);

        EXPECT_EQ(handler_list_append(batch.get(), &record), 0);
    }
    return handlers_db_run_actions(batch.get(), connection, handlers_db_insert_action);
}

int select_to_run(StoreConnection *connection, HandlerList *list)
{
    const HandlerRecord filter = handler("any", "d.test");

    return handlers_db_select_to_run(connection, list, &filter);
}

const Lines both = {"a@d.test spam", "d.test spam"};
const Lines one = {"d.test spam"};

const Operation operations[] = {
    {"Insert",
     [](StoreConnection *connection, HandlerList *) {
         return act(handlers_db_insert_action, connection, "b@d.test");
     },
     insert_sql,
     insert_sql,
     {"a@d.test spam", "b@d.test spam", "d.test spam"},
     {}},
    {"DeleteOne",
     [](StoreConnection *connection, HandlerList *) {
         return act(handlers_db_delete_action, connection, "a@d.test");
     },
     delete_one_sql,
     delete_one_sql,
     one,
     {}},
    {"DeleteEverywhere",
     [](StoreConnection *connection, HandlerList *) {
         return act(handlers_db_delete_action, connection, "all");
     },
     delete_everywhere_sql,
     delete_everywhere_sql,
     {},
     {}},
    {"RunActions",
     run_batch,
     "BEGIN TRANSACTION;",
     insert_sql,
     {"a@d.test spam", "b@d.test spam", "c@d.test spam", "d.test spam"},
     {}},
    {"SelectToRun", select_to_run, select_to_run_sql, select_to_run_sql, both, one, true},
    {"SelectExact",
     [](StoreConnection *connection, HandlerList *list) {
         return handlers_db_select_by_address(connection, list, "d.test", true);
     },
     select_exact_sql, select_exact_sql, both, one, true},
    {"SelectByAddress",
     [](StoreConnection *connection, HandlerList *list) {
         return handlers_db_select_by_address(connection, list, "a@d.test", false);
     },
     select_domain_sql, select_domain_sql, both, both, true},
    {"SelectByDomain",
     [](StoreConnection *connection, HandlerList *list) {
         return handlers_db_select_by_domain(connection, list, "d.test");
     },
     select_domain_sql, select_domain_sql, both, both, true},
    {"ExecWithParam",
     [](StoreConnection *connection, HandlerList *) {
         return handlers_db_exec_with_param(connection, delete_by_address_sql, "a@d.test");
     },
     delete_by_address_sql,
     delete_by_address_sql,
     one,
     {}},
    {"RemoveByAddress",
     [](StoreConnection *connection, HandlerList *) {
         return handlers_db_remove_by_address(connection, "a@d.test");
     },
     delete_by_address_sql,
     delete_by_address_sql,
     one,
     {}},
    {"RemoveByName",
     [](StoreConnection *connection, HandlerList *) {
         return handlers_db_remove_by_name(connection, "spam");
     },
     delete_by_name_sql,
     delete_by_name_sql,
     {},
     {}},
    {"RemoveDomain",
     [](StoreConnection *connection, HandlerList *) {
         return handlers_db_remove_domain(connection, "d.test");
     },
     select_domain_sql,
     select_domain_sql,
     {},
     {},
     true,
     {no_list}},
    {"CopyToMailbox",
     [](StoreConnection *connection, HandlerList *) {
         return handlers_db_copy(connection, "a", "d.test", "x", "t.test");
     },
     copy_mailbox_sql,
     copy_mailbox_sql,
     {"a@d.test spam", "d.test spam", "x@t.test spam"},
     {}},
    {"CopyMailbox",
     [](StoreConnection *connection, HandlerList *) {
         return handlers_db_copy(connection, "a", "d.test", nullptr, "t.test");
     },
     copy_mailbox_sql,
     copy_mailbox_sql,
     {"a@d.test spam", "a@t.test spam", "d.test spam"},
     {}},
    {"CopyDomain",
     [](StoreConnection *connection, HandlerList *) {
         return handlers_db_copy(connection, nullptr, "d.test", nullptr, "t.test");
     },
     copy_domain_sql,
     copy_domain_sql,
     {"a@d.test spam", "a@t.test spam", "d.test spam", "t.test spam"},
     {}},
};

class HandlersDb : public HandlersStoreTest, public ::testing::WithParamInterface<Operation>
{
protected:
    HandlersDb()
    {
        store.add(handler("spam", "a@d.test"));
        store.add(handler("spam", "d.test"));
    }

    [[nodiscard]] int run(StoreConnection *connection) { return GetParam().run(connection, list.get()); }

    void expect_done()
    {
        Lines found;

        for (const HandlerNode *node = list.get()->head; node != nullptr; node = node->next)
            found.insert(found.begin(), std::string(node->record->address) + ' ' + node->record->name);
        EXPECT_EQ(store.handlers(), GetParam().contents);
        EXPECT_EQ(found, GetParam().found);
    }

    void expect_unprepared(const std::string &sql, const std::string &reason)
    {
        Lines lines = {unprepared(sql, reason)};

        lines.insert(lines.end(), GetParam().also_logged.begin(), GetParam().also_logged.end());
        EXPECT_EQ(log.take(), lines);
    }

    [[nodiscard]] std::string unopened(const std::string &path) const
    {
        return std::string("3 Unable to open database") + (GetParam().reads ? "(readonly) " : " ") + path +
               ": unable to open database file";
    }

    OwnedHandlerList list;
};

INSTANTIATE_TEST_SUITE_P(Operations, HandlersDb, ::testing::ValuesIn(operations),
                         [](const auto &test) { return std::string(test.param.name); });

TEST_P(HandlersDb, CallersConnectionIsUsedAndLeftOpen)
{
    StoreConnection connection = store.open();

    handlers_db_set_path("/nonexistent/handlers.db");
    EXPECT_EQ(run(&connection), 0);
    EXPECT_TRUE(connection.is_open());
    EXPECT_NE(sqlite3_get_autocommit(connection.get()), 0);
    expect_done();
}

TEST_P(HandlersDb, OwnConnectionWaitsForAnotherProcess)
{
    const OtherProcessLock lock(store.path(), 200);

    EXPECT_EQ(run(nullptr), 0);
    expect_done();
}

TEST_P(HandlersDb, ClosedConnectionFailsWithTheFixedDetail)
{
    StoreConnection closed;

    EXPECT_EQ(run(&closed), -1);
    expect_unprepared(GetParam().first_sql, "general DB errror");
}

TEST_P(HandlersDb, MissingTableIsReportedAndClosesTheCallersConnection)
{
    StoreConnection connection = store.open();

    store.execute("DROP TABLE handlers");
    EXPECT_EQ(run(&connection), -1);
    expect_unprepared(GetParam().table_sql, "no such table: handlers");
    EXPECT_FALSE(connection.is_open());
}

TEST_P(HandlersDb, StoreInAMissingFolderCannotBeOpened)
{
    const std::string path = store.folder().path("none/handlers.db");

    handlers_db_set_path(path.c_str());
    EXPECT_EQ(run(nullptr), -1);
    EXPECT_EQ(log.take_one(), unopened(path));
}

/* Without its table by those that write. */
TEST_P(HandlersDb, MissingStoreIsCreatedUnlessItIsOpenedForReading)
{
    store.remove();
    EXPECT_EQ(run(nullptr), -1);
    if (GetParam().reads)
        EXPECT_EQ(log.take_one(), unopened(store.path()));
    else
        expect_unprepared(GetParam().table_sql, "no such table: handlers");
    EXPECT_EQ(store.exists(), !GetParam().reads);
}

} // namespace

} // namespace kolmo::testing
