#include <string>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "handlers_store/handlers_db.h"
#include "tests/handlers_store/handlers_texts.h"
#include "tests/support/alloc_faults.h"
#include "tests/support/handlers_store_fixture.h"

namespace kolmo::testing
{

namespace
{

class Remove : public HandlersStoreTest
{
protected:
    void add(const char *name, const char *address) { store.add(handler(name, address)); }

    void refuse_deletes()
    {
        store.execute(
            "CREATE TRIGGER no_delete BEFORE DELETE ON handlers BEGIN SELECT RAISE(ABORT, 'no'); END");
    }
};

using ExecWithParam = Remove;
using RemoveByAddress = Remove;
using RemoveByName = Remove;
using RemoveDomain = Remove;

TEST_F(ExecWithParam, RunsTheStatementWithItsParameter)
{
    add("spam", "a@d.test");
    EXPECT_EQ(handlers_db_exec_with_param(nullptr, "UPDATE handlers SET context = ?", "argument"), 0);
    EXPECT_EQ(store.rows(), Lines{"2|1|1|10|spam|a@d.test|/hook|argument|0"});
}

TEST_F(ExecWithParam, ParameterIsBoundWithItsFullLength)
{
    const std::string context(5000, 'c');

    add("spam", "a@d.test");
    EXPECT_EQ(handlers_db_exec_with_param(nullptr, "UPDATE handlers SET context = ?", context.c_str()), 0);
    EXPECT_EQ(store.query("SELECT context FROM handlers"), Lines{context});
}

TEST_F(ExecWithParam, NoParameterIsSqlNull)
{
    add("spam", "a@d.test");
    EXPECT_EQ(handlers_db_exec_with_param(nullptr, "UPDATE handlers SET enabled = ?", nullptr), 0);
    EXPECT_EQ(store.rows(), Lines{"2|1|NULL|10|spam|a@d.test|/hook|none|0"});
}

TEST_F(ExecWithParam, StatementWithoutParameterCannotBeBoundAndClosesTheCallersConnection)
{
    StoreConnection connection = store.open();

    add("spam", "a@d.test");
    EXPECT_EQ(handlers_db_exec_with_param(&connection, "DELETE FROM handlers", "a@d.test"), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to bind parameter param to query: column index out of range");
    EXPECT_FALSE(connection.is_open());
    EXPECT_EQ(store.rows().size(), 1U);
}

TEST_F(ExecWithParam, RefusedStatementIsReportedAndLeavesTheCallersConnectionOpen)
{
    add("spam", "a@d.test");
    refuse_deletes();
    StoreConnection connection = store.open();

    EXPECT_EQ(handlers_db_exec_with_param(&connection, delete_by_name_sql, "spam"), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to execute do action on handlers database: no");
    EXPECT_TRUE(connection.is_open());
    EXPECT_EQ(store.rows().size(), 1U);
}

/* One step is made, and a row is not what it has to end with. */
TEST_F(ExecWithParam, StatementThatGivesARowHasFailed)
{
    add("spam", "a@d.test");
    EXPECT_EQ(handlers_db_exec_with_param(nullptr, "SELECT * FROM handlers WHERE name=?", "spam"), -1);
    EXPECT_EQ(log.take_one().rfind("3 Unable to execute do action on handlers database: ", 0), 0U);
}

TEST_F(RemoveByAddress, RemovesEveryHandlerOfTheAddress)
{
    add("spam", "a@d.test");
    add("virus", "a@d.test");
    add("spam", "b@d.test");
    add("spam", "d.test");
    EXPECT_EQ(handlers_db_remove_by_address(nullptr, "a@d.test"), 0);
    EXPECT_EQ(store.handlers(), (Lines{"b@d.test spam", "d.test spam"}));
}

TEST_F(RemoveByAddress, CapitalsRemoveNothingAndSucceed)
{
    add("spam", "a@d.test");
    EXPECT_EQ(handlers_db_remove_by_address(nullptr, "A@d.test"), 0);
    EXPECT_EQ(store.handlers(), Lines{"a@d.test spam"});
}

TEST_F(RemoveByAddress, AllIsNoWildcard)
{
    add("spam", "a@d.test");
    add("spam", "all");
    EXPECT_EQ(handlers_db_remove_by_address(nullptr, "all"), 0);
    EXPECT_EQ(store.handlers(), Lines{"a@d.test spam"});
}

TEST_F(RemoveByName, RemovesTheHandlerOfEveryAddressQueueAndType)
{
    HandlerRecord queue = handler("autoresponder", "a@d.test"), type = queue;

    queue.queue = 9;
    type.type = 9;
    store.add(queue);
    store.add(type);
    for (const char *address : {"a@d.test", "b@d.test", "d.test", "all"})
        add("autoresponder", address);
    add("spam", "a@d.test");
    EXPECT_EQ(handlers_db_remove_by_name(nullptr, "autoresponder"), 0);
    EXPECT_EQ(store.handlers(), Lines{"a@d.test spam"});
}

TEST_F(RemoveByName, NameIsComparedExactly)
{
    add("spam", "a@d.test");
    for (const char *name : {"Spam", "spa", "spam ", "%", ""})
        EXPECT_EQ(handlers_db_remove_by_name(nullptr, name), 0);
    EXPECT_EQ(store.handlers(), Lines{"a@d.test spam"});
}

TEST_F(RemoveDomain, RemovesTheHandlersOfTheDomainAndItsMailboxesOnly)
{
    for (const char *address :
         {"a@d.test", "b@d.test", "d.test", "a@d.test.org", "d.test.org", "a@sub.d.test", "all"})
        add("spam", address);
    add("virus", "a@d.test");
    EXPECT_EQ(handlers_db_remove_domain(nullptr, "d.test"), 0);
    EXPECT_EQ(store.handlers(),
              (Lines{"a@d.test.org spam", "a@sub.d.test spam", "all spam", "d.test.org spam"}));
}

TEST_F(RemoveDomain, MailboxMeansItsWholeDomain)
{
    for (const char *address : {"a@d.test", "b@d.test", "d.test"})
        add("spam", address);
    EXPECT_EQ(handlers_db_remove_domain(nullptr, "a@d.test"), 0);
    EXPECT_TRUE(store.rows().empty());
}

/* The record's own key is deleted: the same name, type and queue for another address stays. */
TEST_F(RemoveDomain, EachHandlerIsRemovedForItsAddressOnly)
{
    HandlerRecord queue = handler("spam", "a@d.test"), type = queue;

    queue.queue = 9;
    type.type = 9;
    store.add(queue);
    store.add(type);
    add("spam", "a@d.test");
    for (const char *address : {"x@other.test", "other.test", "all"})
        add("spam", address);
    EXPECT_EQ(handlers_db_remove_domain(nullptr, "d.test"), 0);
    EXPECT_EQ(store.handlers(), (Lines{"all spam", "other.test spam", "x@other.test spam"}));
}

/* A global handler knows no address: found for the domain, it goes everywhere, and the others stay. */
TEST_F(RemoveDomain, GlobalHandlerOfTheDomainIsRemovedForEveryAddress)
{
    HandlerRecord global = handler("global", "a@d.test");

    global.type = HANDLER_TYPE_GLOBAL;
    store.add(global);
    global.address = "all";
    store.add(global);
    add("spam", "all");
    EXPECT_EQ(handlers_db_remove_domain(nullptr, "d.test"), 0);
    EXPECT_EQ(store.handlers(), Lines{"all spam"});
}

/* It would be taken for every address. */
TEST_F(RemoveDomain, AddressLostForWantOfMemoryRemovesNothing)
{
    add("autoresponder", "a@d.test");
    add("autoresponder", "x@other.test");
    EXPECT_EQ(without_memory(4, [] { return handlers_db_remove_domain(nullptr, "d.test"); }), -1);
    EXPECT_EQ(log.take_one(), "3 Get handlers list");
    EXPECT_EQ(store.handlers(), (Lines{"a@d.test autoresponder", "x@other.test autoresponder"}));
}

TEST_F(RemoveDomain, WildcardsAndCapitalsRemoveNothing)
{
    add("spam", "a@d.test");
    for (const char *domain : {"d_test", "%", "D.test"})
        EXPECT_EQ(handlers_db_remove_domain(nullptr, domain), 0);
    EXPECT_EQ(store.handlers(), Lines{"a@d.test spam"});
}

TEST_F(RemoveDomain, DomainWithoutHandlersIsASuccess)
{
    add("spam", "a@d.test");
    EXPECT_EQ(handlers_db_remove_domain(nullptr, "other.test"), 0);
    EXPECT_EQ(store.handlers(), Lines{"a@d.test spam"});
}

TEST_F(RemoveDomain, ReadThatFailsLaterIsReportedTwiceAndLeavesTheCallersConnectionOpen)
{
    store.make_unreadable();
    StoreConnection connection = store.open();

    EXPECT_EQ(handlers_db_remove_domain(&connection, "d.test"), -1);
    EXPECT_EQ(log.take(),
              (Lines{"3 Unable to select data from handlers database: integer overflow", no_list}));
    EXPECT_TRUE(connection.is_open());
}

TEST_F(RemoveDomain, RefusedDeletesAreReportedAndDoNotStopTheOthers)
{
    for (const char *address : {"a@d.test", "b@d.test", "c@d.test"})
        add("spam", address);
    store.execute("CREATE TRIGGER no_delete BEFORE DELETE ON handlers WHEN OLD.address = 'b@d.test' "
                  "BEGIN SELECT RAISE(ABORT, 'no'); END");
    EXPECT_EQ(handlers_db_remove_domain(nullptr, "d.test"), 0);
    EXPECT_EQ(log.take_one(), "3 Unable to execute delete record from handlers database: no");
    EXPECT_EQ(store.handlers(), Lines{"b@d.test spam"});
}

TEST_F(RemoveDomain, FailedBatchIsReportedByTheDriverAndThenWithTheCopysMessage)
{
    StoreConnection connection = store.open();

    add("spam", "a@d.test");
    ASSERT_EQ(sqlite3_exec(connection.get(), "BEGIN", nullptr, nullptr, nullptr), SQLITE_OK);
    EXPECT_EQ(held_at_last_line(&log, [&] { return handlers_db_remove_domain(&connection, "d.test"); }),
              std::pair(-1, std::size_t(0)));
    EXPECT_EQ(log.take(),
              (Lines{"3 Unable to begin sqlite transaction: cannot start a transaction within a transaction",
                     not_added}));
    EXPECT_FALSE(connection.is_open());
    EXPECT_EQ(store.rows().size(), 1U);
}

} // namespace

} // namespace kolmo::testing
