#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "handlers_store/handlers_db.h"
#include "handlers_store/owned_handler_list.h"
#include "responder_store/kit/busy_retry.h"
#include "tests/handlers_store/handlers_texts.h"
#include "tests/support/alloc_faults.h"
#include "tests/support/handlers_store_fixture.h"
#include "tests/support/other_process_lock.h"

namespace kolmo
{

namespace
{

using namespace testing;

HandlerRecord global_handler(const char *address)
{
    HandlerRecord record = handler("spam", address);

    record.type = HANDLER_TYPE_GLOBAL;
    return record;
}

/* A copy with texts from malloc, for the action that changes its record. */
class OwnRecord
{
public:
    explicit OwnRecord(const HandlerRecord &source) : record_(handler_record_clone(&source)) {}
    ~OwnRecord() { handler_record_free(record_); }
    OwnRecord(const OwnRecord &) = delete;
    OwnRecord &operator=(const OwnRecord &) = delete;

    HandlerRecord *get() { return record_; }
    HandlerRecord *operator->() { return record_; }

private:
    HandlerRecord *record_;
};

class GlobalAddress : public ::testing::Test
{
protected:
    LogCapture log;
};

class InsertAction : public HandlersStoreTest
{
protected:
    int insert(HandlerRecord record) { return handlers_db_insert_action(nullptr, &record); }
};

/* A store in which each delete has something to leave. */
class DeleteAction : public HandlersStoreTest
{
protected:
    DeleteAction()
    {
        for (const char *address : {"a@d.test", "b@d.test", "all", "all-recipients"})
            store.add(handler("spam", address));
        store.add(handler("virus", "a@d.test"));
    }

    static int remove(const HandlerRecord &record)
    {
        return handlers_db_delete_action(nullptr, OwnRecord(record).get());
    }

    const Lines everything = {"a@d.test spam", "a@d.test virus", "all spam", "all-recipients spam",
                              "b@d.test spam"};
    const Lines virus_only = {"a@d.test virus"};
};

/* What the actions below were called with: names, and the connections they got. */
std::vector<std::string> called;
std::vector<StoreConnection *> connections;

int note_action(StoreConnection *connection, HandlerRecord *record)
{
    called.emplace_back(record->name);
    connections.push_back(connection);
    return 0;
}

int failing_action(StoreConnection *connection, HandlerRecord *record)
{
    (void)note_action(connection, record);
    return -1;
}

/* Inserts, and closes the connection at the record "closer", as a failed prepare or bind does. */
int closing_action(StoreConnection *connection, HandlerRecord *record)
{
    (void)note_action(connection, record);
    if (std::strcmp(record->name, "closer") == 0) {
        EXPECT_EQ(close_with_retry(connection), Ending::done);
        return -1;
    }
    return handlers_db_insert_action(connection, record);
}

class RunActions : public HandlersStoreTest
{
protected:
    RunActions()
    {
        called.clear();
        connections.clear();
    }

    void append(const HandlerRecord &record) { ASSERT_EQ(handler_list_append(list.get(), &record), 0); }

    OwnedHandlerList list;
};

TEST_F(GlobalAddress, NullAndEmptyMeanAll)
{
    EXPECT_STREQ(handlers_global_address(nullptr), "all");
    EXPECT_STREQ(handlers_global_address(""), "all");
}

TEST_F(GlobalAddress, TheTwoWordsAreReturnedAsTheyAre)
{
    for (const char *word : {"all", "all-recipients"}) {
        const std::string copy = word;

        EXPECT_EQ(handlers_global_address(copy.c_str()), copy.c_str());
    }
}

TEST_F(GlobalAddress, AnythingElseIsRejected)
{
    for (const char *address : {"ALL", "All-recipients", "all ", "all-", "a@d.test", "d.test", " "}) {
        EXPECT_EQ(handlers_global_address(address), nullptr) << address;
        EXPECT_EQ(log.take_one(), "3 Incorrect recipient address for global handler, expected "
                                  "[NULL|EMPTY_STRING|all|all-recipients]");
    }
}

TEST_F(InsertAction, WritesEveryFieldInItsColumn)
{
    EXPECT_EQ(insert({-5, 7, 3, "n", "a@d.test", "/program", "argument", true, false}), 0);
    EXPECT_EQ(store.rows(), Lines{"3|7|0|-5|n|a@d.test|/program|argument|1"});
}

TEST_F(InsertAction, WritesTheTwoFlagsApart)
{
    EXPECT_EQ(insert({-5, 7, 3, "n", "a@d.test", "/program", "argument", false, true}), 0);
    EXPECT_EQ(store.rows(), Lines{"3|7|1|-5|n|a@d.test|/program|argument|0"});
}

TEST_F(InsertAction, AddressIsStoredInLowerCase)
{
    EXPECT_EQ(insert(handler("spam", "Anna.B@D.Test")), 0);
    EXPECT_EQ(store.handlers(), Lines{"anna.b@d.test spam"});
}

/* Only A to Z: the store has never known more of cases. */
TEST_F(InsertAction, LettersBeyondAsciiKeepTheirCase)
{
    EXPECT_EQ(insert(handler("spam", "\xC3\x84X@d.test")), 0);
    EXPECT_EQ(store.handlers(), Lines{"\xC3\x84x@d.test spam"});
}

TEST_F(InsertAction, OnlyTheAddressIsLowered)
{
    EXPECT_EQ(insert({1, 1, 2, "Name", "a@d.test", "/Program", "Argument", false, true}), 0);
    EXPECT_EQ(store.rows(), Lines{"2|1|1|1|Name|a@d.test|/Program|Argument|0"});
}

TEST_F(InsertAction, NullContextIsStoredAsNone)
{
    HandlerRecord record = handler("spam", "a@d.test");

    record.context = nullptr;
    EXPECT_EQ(insert(record), 0);
    EXPECT_EQ(store.query("SELECT context FROM handlers"), Lines{"none"});
}

TEST_F(InsertAction, EmptyContextStaysEmpty)
{
    HandlerRecord record = handler("spam", "a@d.test");

    record.context = "";
    EXPECT_EQ(insert(record), 0);
    EXPECT_EQ(store.query("SELECT '[' || context || ']' FROM handlers"), Lines{"[]"});
}

TEST_F(InsertAction, SameKeyAgainReplacesTheRow)
{
    EXPECT_EQ(insert({10, 1, 2, "spam", "a@d.test", "/old", "old", true, true}), 0);
    EXPECT_EQ(insert({20, 1, 2, "spam", "A@D.TEST", "/new", "new", false, false}), 0);
    EXPECT_EQ(store.rows(), Lines{"2|1|0|20|spam|a@d.test|/new|new|0"});
}

TEST_F(InsertAction, EachPartOfTheKeyTellsRowsApart)
{
    const HandlerRecord first = handler("spam", "a@d.test");
    HandlerRecord queue = first, type = first, name = first, address = first;

    queue.queue = 9;
    type.type = 9;
    name.name = "virus";
    address.address = "b@d.test";
    for (const HandlerRecord &record : {first, queue, type, name, address})
        EXPECT_EQ(insert(record), 0);
    EXPECT_EQ(store.rows().size(), 5U);
}

TEST_F(InsertAction, GlobalHandlerIsStoredForAllOrAllRecipients)
{
    const struct {
        const char *address;
        const char *stored;
    } cases[] = {{nullptr, "all"}, {"", "all"}, {"all", "all"}, {"all-recipients", "all-recipients"}};

    for (const auto &[address, stored] : cases) {
        EXPECT_EQ(insert(global_handler(address)), 0);
        EXPECT_EQ(store.query("SELECT address FROM handlers"), Lines{stored});
        store.execute("DELETE FROM handlers");
    }
}

TEST_F(InsertAction, GlobalHandlerForAnythingElseIsRejectedAndNothingIsWritten)
{
    for (const char *address : {"ALL", "a@d.test"}) {
        EXPECT_EQ(insert(global_handler(address)), -1);
        EXPECT_EQ(log.take_one(), "3 Incorrect recipient address for global handler, expected "
                                  "[NULL|EMPTY_STRING|all|all-recipients]");
    }
    EXPECT_TRUE(store.rows().empty());
}

TEST_F(InsertAction, RejectedGlobalHandlerDoesNotEvenOpenTheStore)
{
    store.remove();
    EXPECT_EQ(insert(global_handler("ALL")), -1);
    (void)log.take_one();
    EXPECT_FALSE(store.exists());
}

TEST_F(InsertAction, WordsOfGlobalHandlersAreAddressesForOtherTypes)
{
    EXPECT_EQ(insert(handler("spam", "ALL")), 0);
    EXPECT_EQ(insert(handler("virus", "")), 0);
    EXPECT_EQ(store.handlers(), (Lines{" virus", "all spam"}));
}

TEST_F(InsertAction, RecordIsNotChanged)
{
    HandlerRecord record = global_handler(nullptr);
    record.context = nullptr;
    const std::string before = text_of(record);

    EXPECT_EQ(handlers_db_insert_action(nullptr, &record), 0);
    EXPECT_EQ(text_of(record), before);
}

TEST_F(InsertAction, TextsAreBoundWithTheirFullLength)
{
    const std::string name(300, 'n'), address(3000, 'a'), program(3000, 'p'), context(3000, 'c');

    EXPECT_EQ(insert({1, 1, 2, name.c_str(), address.c_str(), program.c_str(), context.c_str(), false, true}),
              0);
    EXPECT_EQ(store.rows(), Lines{"2|1|1|1|" + name + '|' + address + '|' + program + '|' + context + "|0"});
}

/* Each text that must not be absent, and the column that the store then misses. */
TEST_F(InsertAction, MissingTextIsRefusedByTheStoreAndTheCallersConnectionStaysOpen)
{
    StoreConnection connection = store.open();
    HandlerRecord name = handler(nullptr, "a@d.test");
    HandlerRecord address = handler("spam", nullptr);
    HandlerRecord program = handler("spam", "a@d.test");
    program.executable = nullptr;
    const struct {
        HandlerRecord *record;
        const char *column;
    } cases[] = {{&name, "name"}, {&address, "address"}, {&program, "executable"}};

    for (const auto &[record, column] : cases) {
        EXPECT_EQ(handlers_db_insert_action(&connection, record), -1);
        EXPECT_EQ(log.take_one(), std::string("3 Unable to execute insert record into handlers database: NOT "
                                              "NULL constraint failed: handlers.") +
                                      column);
        EXPECT_TRUE(connection.is_open());
    }
    EXPECT_TRUE(store.rows().empty());
}

TEST_F(InsertAction, CallersConnectionIsUsedAndLeftOpen)
{
    StoreConnection connection = store.open();
    HandlerRecord record = handler("spam", "a@d.test");

    ASSERT_EQ(sqlite3_exec(connection.get(), "BEGIN", nullptr, nullptr, nullptr), SQLITE_OK);
    EXPECT_EQ(handlers_db_insert_action(&connection, &record), 0);
    EXPECT_TRUE(store.rows().empty()) << "not in the caller's transaction";
    ASSERT_EQ(sqlite3_exec(connection.get(), "COMMIT", nullptr, nullptr, nullptr), SQLITE_OK);
    EXPECT_EQ(store.handlers(), Lines{"a@d.test spam"});
}

TEST_F(InsertAction, ClosedConnectionFailsCleanly)
{
    StoreConnection closed;
    HandlerRecord record = handler("spam", "a@d.test");

    EXPECT_EQ(handlers_db_insert_action(&closed, &record), -1);
    EXPECT_EQ(log.take_one(), unprepared(insert_sql));
}

TEST_F(InsertAction, StatementThatCannotBePreparedClosesTheCallersConnection)
{
    StoreConnection connection = store.open();
    HandlerRecord record = handler("spam", "a@d.test");

    store.execute("DROP TABLE handlers");
    EXPECT_EQ(handlers_db_insert_action(&connection, &record), -1);
    EXPECT_EQ(log.take_one(), unprepared(insert_sql, "no such table: handlers"));
    EXPECT_FALSE(connection.is_open());
}

TEST_F(InsertAction, StoreThatCannotBeOpenedIsReported)
{
    const std::string path = store.folder().path();
    handlers_db_set_path(path.c_str());

    EXPECT_EQ(insert(handler("spam", "a@d.test")), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to open database " + path + ": unable to open database file");
}

TEST_F(InsertAction, WaitsForAnotherProcess)
{
    const OtherProcessLock lock(store.path(), 300);

    EXPECT_EQ(insert(handler("spam", "a@d.test")), 0);
    EXPECT_EQ(store.handlers(), Lines{"a@d.test spam"});
}

TEST_F(DeleteAction, AddressRemovesThatOneHandler)
{
    EXPECT_EQ(remove(handler("spam", "a@d.test")), 0);
    EXPECT_EQ(store.handlers(),
              (Lines{"a@d.test virus", "all spam", "all-recipients spam", "b@d.test spam"}));
}

TEST_F(DeleteAction, AddressIsFoundInAnyCase)
{
    EXPECT_EQ(remove(handler("spam", "A@D.Test")), 0);
    EXPECT_EQ(store.handlers(),
              (Lines{"a@d.test virus", "all spam", "all-recipients spam", "b@d.test spam"}));
}

TEST_F(DeleteAction, NullEmptyAndAllMeanEveryAddress)
{
    for (const char *address : {static_cast<const char *>(nullptr), "", "all"}) {
        EXPECT_EQ(remove(handler("spam", address)), 0);
        EXPECT_EQ(store.handlers(), virus_only);
        store.add(handler("spam", "b@d.test"));
    }
}

TEST_F(DeleteAction, AllInCapitalsIsAnAddress)
{
    EXPECT_EQ(remove(handler("spam", "ALL")), 0);
    EXPECT_EQ(store.handlers(),
              (Lines{"a@d.test spam", "a@d.test virus", "all-recipients spam", "b@d.test spam"}));
}

TEST_F(DeleteAction, AllRecipientsIsAnAddressForOtherTypes)
{
    EXPECT_EQ(remove(handler("spam", "all-recipients")), 0);
    EXPECT_EQ(store.handlers(), (Lines{"a@d.test spam", "a@d.test virus", "all spam", "b@d.test spam"}));
}

TEST_F(DeleteAction, GlobalHandlerIsRemovedForEveryAddress)
{
    for (const char *address :
         {static_cast<const char *>(nullptr), "", "all", "all-recipients", "ALL", "a@d.test"}) {
        store.add(global_handler("all"));
        store.add(global_handler("a@d.test"));
        EXPECT_EQ(remove(global_handler(address)), 0);
        EXPECT_EQ(store.handlers(), everything) << (address != nullptr ? address : "null");
    }
}

/* Everywhere is every address, not every handler: name, type and queue still decide, in both forms. */
TEST_F(DeleteAction, NameTypeAndQueueMustMatch)
{
    HandlerRecord name = handler("Spam", "all"), type = handler("spam", "all"), queue = type;

    type.type = 9;
    queue.queue = 9;
    for (HandlerRecord record : {name, type, queue})
        for (const char *address : {"all", "a@d.test"}) {
            record.address = address;
            EXPECT_EQ(remove(record), 0);
            EXPECT_EQ(store.handlers(), everything);
        }
}

TEST_F(DeleteAction, MissingHandlerIsASuccess)
{
    EXPECT_EQ(remove(handler("nothing", "a@d.test")), 0);
    EXPECT_EQ(remove(handler("nothing", "all")), 0);
    EXPECT_EQ(store.handlers(), everything);
}

TEST_F(DeleteAction, NoNameMatchesNothing)
{
    EXPECT_EQ(remove(handler(nullptr, "a@d.test")), 0);
    EXPECT_EQ(store.handlers(), everything);
}

TEST_F(DeleteAction, WildcardRecordReadsAllAfterwards)
{
    for (const HandlerRecord &source : {handler("spam", nullptr), handler("spam", ""), handler("spam", "all"),
                                        global_handler("all-recipients"), global_handler("a@d.test")}) {
        OwnRecord record(source);

        EXPECT_EQ(handlers_db_delete_action(nullptr, record.get()), 0);
        EXPECT_STREQ(record->address, "all");
    }
}

TEST_F(DeleteAction, WildcardRecordGetsACopyOfItsOwn)
{
    OwnRecord record(handler("spam", "all"));
    OwnRecord other(handler("spam", "all"));

    EXPECT_EQ(handlers_db_delete_action(nullptr, record.get()), 0);
    EXPECT_EQ(handlers_db_delete_action(nullptr, other.get()), 0);
    EXPECT_NE(record->address, other->address);
}

TEST_F(DeleteAction, RecordOfOneAddressIsNotChanged)
{
    OwnRecord record(handler("spam", "A@d.test"));
    const std::string before = text_of(*record.get());

    EXPECT_EQ(handlers_db_delete_action(nullptr, record.get()), 0);
    EXPECT_EQ(text_of(*record.get()), before);
}

TEST_F(DeleteAction, NoMemoryForTheAddressIsReportedAndNothingIsDeleted)
{
    OwnRecord record(handler("spam", "all"));
    const int result = without_memory(1, [&] { return handlers_db_delete_action(nullptr, record.get()); });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(log.take_one(), "3 System error: Cannot allocate memory");
    EXPECT_EQ(store.handlers(), everything);
}

TEST_F(DeleteAction, CallersConnectionIsUsedAndLeftOpen)
{
    StoreConnection connection = store.open();

    for (const char *address : {"all", "a@d.test"}) {
        OwnRecord record(handler("spam", address));

        ASSERT_EQ(sqlite3_exec(connection.get(), "BEGIN", nullptr, nullptr, nullptr), SQLITE_OK);
        EXPECT_EQ(handlers_db_delete_action(&connection, record.get()), 0);
        EXPECT_GT(sqlite3_changes(connection.get()), 0);
        EXPECT_EQ(store.handlers(), everything) << "not in the caller's transaction";
        ASSERT_EQ(sqlite3_exec(connection.get(), "ROLLBACK", nullptr, nullptr, nullptr), SQLITE_OK);
    }
}

TEST_F(DeleteAction, ClosedConnectionFailsCleanly)
{
    StoreConnection closed;
    OwnRecord everywhere(handler("spam", "all"));
    OwnRecord one(handler("spam", "a@d.test"));

    EXPECT_EQ(handlers_db_delete_action(&closed, everywhere.get()), -1);
    EXPECT_EQ(log.take_one(), unprepared(delete_everywhere_sql));
    EXPECT_EQ(handlers_db_delete_action(&closed, one.get()), -1);
    EXPECT_EQ(log.take_one(), unprepared(delete_one_sql));
}

TEST_F(DeleteAction, RefusedDeleteIsReportedAndLeavesTheCallersConnectionOpen)
{
    store.execute("CREATE TRIGGER no_delete BEFORE DELETE ON handlers BEGIN SELECT RAISE(ABORT, 'no'); END");
    StoreConnection connection = store.open();

    for (const char *address : {"all", "a@d.test"}) {
        OwnRecord record(handler("spam", address));

        EXPECT_EQ(handlers_db_delete_action(&connection, record.get()), -1);
        EXPECT_EQ(log.take_one(), "3 Unable to execute delete record from handlers database: no");
        EXPECT_TRUE(connection.is_open());
    }
    EXPECT_EQ(store.handlers(), everything);
}

TEST_F(DeleteAction, StoreThatCannotBeOpenedIsReported)
{
    const std::string path = store.folder().path();
    handlers_db_set_path(path.c_str());

    EXPECT_EQ(remove(handler("spam", "all")), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to open database " + path + ": unable to open database file");
}

TEST_F(DeleteAction, WaitsForAnotherProcess)
{
    const OtherProcessLock lock(store.path(), 300);

    EXPECT_EQ(remove(handler("spam", "all")), 0);
    EXPECT_EQ(store.handlers(), virus_only);
}

TEST_F(RunActions, AppliesTheActionFromTheHeadOfTheList)
{
    for (const char *name : {"A", "B", "C"})
        append(handler(name, "a@d.test"));
    EXPECT_EQ(handlers_db_run_actions(list.get(), nullptr, note_action), 0);
    EXPECT_EQ(called, (Lines{"C", "B", "A"}));
}

TEST_F(RunActions, ActionsGetTheCallersConnection)
{
    StoreConnection connection = store.open();

    append(handler("A", "a@d.test"));
    append(handler("B", "a@d.test"));
    EXPECT_EQ(handlers_db_run_actions(list.get(), &connection, note_action), 0);
    EXPECT_EQ(connections, (std::vector<StoreConnection *>{&connection, &connection}));
}

TEST_F(RunActions, ActionsGetTheDriversConnectionWhenThereIsNoCallers)
{
    append(handler("A", "a@d.test"));
    append(handler("B", "a@d.test"));
    EXPECT_EQ(handlers_db_run_actions(list.get(), nullptr, note_action), 0);
    ASSERT_EQ(connections.size(), 2U);
    EXPECT_NE(connections[0], nullptr);
    EXPECT_EQ(connections[0], connections[1]);
}

TEST_F(RunActions, InsertsAreCommittedAndTheCallersConnectionStaysOpen)
{
    StoreConnection connection = store.open();

    append(handler("A", "a@d.test"));
    append(handler("B", "a@d.test"));
    EXPECT_EQ(handlers_db_run_actions(list.get(), &connection, handlers_db_insert_action), 0);
    EXPECT_EQ(store.handlers(), (Lines{"a@d.test A", "a@d.test B"}));
    EXPECT_NE(sqlite3_get_autocommit(connection.get()), 0);
}

TEST_F(RunActions, DeletesAreCommitted)
{
    for (const char *name : {"A", "B", "C"})
        store.add(handler(name, "a@d.test"));
    append(handler("A", "a@d.test"));
    append(handler("B", "all"));
    EXPECT_EQ(handlers_db_run_actions(list.get(), nullptr, handlers_db_delete_action), 0);
    EXPECT_EQ(store.handlers(), Lines{"a@d.test C"});
}

TEST_F(RunActions, NothingIsCommittedBeforeTheEnd)
{
    append(handler("A", "a@d.test"));
    append(handler("B", "a@d.test"));
    EXPECT_EQ(handlers_db_run_actions(list.get(), nullptr,
                                      [](StoreConnection *connection, HandlerRecord *record) {
                                          EXPECT_EQ(sqlite3_get_autocommit(connection->get()), 0);
                                          return handlers_db_insert_action(connection, record);
                                      }),
              0);
    EXPECT_EQ(store.rows().size(), 2U);
}

TEST_F(RunActions, ResultsOfActionsAreIgnored)
{
    append(handler("A", "a@d.test"));
    append(handler("B", "a@d.test"));
    EXPECT_EQ(handlers_db_run_actions(list.get(), nullptr, failing_action), 0);
    EXPECT_EQ(called, (Lines{"B", "A"}));
}

TEST_F(RunActions, RefusedRecordIsLeftOutAndTheOthersAreCommitted)
{
    append(handler("A", "a@d.test"));
    append(handler(nullptr, "a@d.test"));
    append(handler("C", "a@d.test"));
    EXPECT_EQ(handlers_db_run_actions(list.get(), nullptr, handlers_db_insert_action), 0);
    EXPECT_EQ(log.take_one(),
              "3 Unable to execute insert record into handlers database: NOT NULL constraint failed: "
              "handlers.name");
    EXPECT_EQ(store.handlers(), (Lines{"a@d.test A", "a@d.test C"}));
}

TEST_F(RunActions, RejectedGlobalRecordIsLeftOutAndTheOthersAreCommitted)
{
    append(handler("A", "a@d.test"));
    append(global_handler("a@d.test"));
    append(handler("C", "a@d.test"));
    EXPECT_EQ(handlers_db_run_actions(list.get(), nullptr, handlers_db_insert_action), 0);
    EXPECT_EQ(log.take_one(), "3 Incorrect recipient address for global handler, expected "
                              "[NULL|EMPTY_STRING|all|all-recipients]");
    EXPECT_EQ(store.handlers(), (Lines{"a@d.test A", "a@d.test C"}));
}

TEST_F(RunActions, EveryRecordRefusedIsStillASuccess)
{
    append(handler(nullptr, "a@d.test"));
    append(handler(nullptr, "b@d.test"));
    EXPECT_EQ(handlers_db_run_actions(list.get(), nullptr, handlers_db_insert_action), 0);
    EXPECT_EQ(log.take().size(), 2U);
    EXPECT_TRUE(store.rows().empty());
}

TEST_F(RunActions, ActionThatClosesTheConnectionStopsTheBatchAndNothingIsCommitted)
{
    for (const char *name : {"never", "closer", "lost"})
        append(handler(name, "a@d.test"));
    EXPECT_EQ(handlers_db_run_actions(list.get(), nullptr, closing_action), -1);
    EXPECT_EQ(called, (Lines{"lost", "closer"}));
    EXPECT_TRUE(store.rows().empty());
}

TEST_F(RunActions, ActionThatClosesTheCallersConnectionStopsTheBatchToo)
{
    StoreConnection connection = store.open();

    for (const char *name : {"never", "closer", "lost"})
        append(handler(name, "a@d.test"));
    EXPECT_EQ(handlers_db_run_actions(list.get(), &connection, closing_action), -1);
    EXPECT_EQ(called, (Lines{"lost", "closer"}));
    EXPECT_FALSE(connection.is_open());
    EXPECT_TRUE(store.rows().empty());
}

/* The last record closes it: "END TRANSACTION;" has nothing to run on either. */
TEST_F(RunActions, LastActionThatClosesTheConnectionIsNotFollowedByAnEnd)
{
    append(handler("closer", "a@d.test"));
    append(handler("lost", "a@d.test"));
    EXPECT_EQ(handlers_db_run_actions(list.get(), nullptr, closing_action), -1);
    EXPECT_TRUE(store.rows().empty());
}

TEST_F(RunActions, OpenTransactionOfTheCallerCannotBeBegunAgainAndIsLostWithTheConnection)
{
    StoreConnection connection = store.open();

    append(handler("A", "a@d.test"));
    ASSERT_EQ(sqlite3_exec(connection.get(), "BEGIN", nullptr, nullptr, nullptr), SQLITE_OK);
    EXPECT_EQ(handlers_db_run_actions(list.get(), &connection, note_action), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to begin sqlite transaction: cannot start a transaction within a "
                              "transaction");
    EXPECT_FALSE(connection.is_open());
    EXPECT_TRUE(called.empty());
}

TEST_F(RunActions, ActionThatEndsTheTransactionMakesTheEndFail)
{
    StoreConnection connection = store.open();

    append(handler("A", "a@d.test"));
    EXPECT_EQ(handlers_db_run_actions(list.get(), &connection,
                                      [](StoreConnection *used, HandlerRecord *) {
                                          return sqlite3_exec(used->get(), "END", nullptr, nullptr, nullptr);
                                      }),
              -1);
    EXPECT_EQ(log.take_one(), "3 Unable to end sqlite transaction: cannot commit - no transaction is active");
    EXPECT_FALSE(connection.is_open());
}

TEST_F(RunActions, ClosedConnectionFailsCleanly)
{
    StoreConnection closed;

    append(handler("A", "a@d.test"));
    EXPECT_EQ(handlers_db_run_actions(list.get(), &closed, note_action), -1);
    EXPECT_EQ(log.take_one(), unprepared("BEGIN TRANSACTION;"));
    EXPECT_TRUE(called.empty());
}

TEST_F(RunActions, StoreThatCannotBeOpenedIsReportedAndNothingIsDone)
{
    const std::string path = store.folder().path();
    handlers_db_set_path(path.c_str());

    append(handler("A", "a@d.test"));
    EXPECT_EQ(handlers_db_run_actions(list.get(), nullptr, note_action), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to open database " + path + ": unable to open database file");
    EXPECT_TRUE(called.empty());
}

TEST_F(RunActions, MissingStoreIsCreated)
{
    store.remove();
    EXPECT_EQ(handlers_db_run_actions(list.get(), nullptr, handlers_db_insert_action), 0);
    EXPECT_TRUE(store.exists());
}

TEST_F(RunActions, WaitsForAnotherProcess)
{
    const OtherProcessLock lock(store.path(), 300);

    append(handler("A", "a@d.test"));
    append(handler("B", "a@d.test"));
    EXPECT_EQ(handlers_db_run_actions(list.get(), nullptr, handlers_db_insert_action), 0);
    EXPECT_EQ(store.rows().size(), 2U);
}

TEST_F(RunActions, WaitsForAnotherProcessOnTheCallersConnectionToo)
{
    const OtherProcessLock lock(store.path(), 300);
    StoreConnection connection = store.open();

    append(handler("A", "a@d.test"));
    EXPECT_EQ(handlers_db_run_actions(list.get(), &connection, handlers_db_insert_action), 0);
    EXPECT_TRUE(connection.is_open());
    EXPECT_EQ(store.handlers(), Lines{"a@d.test A"});
}

} // namespace

} // namespace kolmo
