#include <algorithm>
#include <string>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "handlers_store/handlers_db.h"
#include "handlers_store/owned_handler_list.h"
#include "tests/handlers_store/handlers_texts.h"
#include "tests/support/alloc_faults.h"
#include "tests/support/handlers_store_fixture.h"
#include "tests/support/killed_writer.h"

namespace kolmo::testing
{

namespace
{

Lines sorted(Lines lines)
{
    std::sort(lines.begin(), lines.end());
    return lines;
}

class Select : public HandlersStoreTest
{
protected:
    void add(const char *name, const char *address, int priority = 10)
    {
        HandlerRecord record = handler(name, address);

        record.priority = priority;
        store.add(record);
    }

    /* A store without its constraints, for what no other one can hold. */
    void make_lax_store()
    {
        store.execute(
            "DROP TABLE handlers; CREATE TABLE handlers (queue, type, enabled, priority, name, address, "
            "executable, context, protected);");
    }

    /* "address name" from the list's head. */
    Lines found() { return names_of(list.get()); }

    static Lines names_of(const HandlerList *list)
    {
        Lines names;

        for (const HandlerNode *node = list->head; node != nullptr; node = node->next)
            names.push_back(std::string(node->record->address) + ' ' + node->record->name);
        return names;
    }

    OwnedHandlerList list;
};

class SelectToRun : public Select
{
protected:
    /* All of the filter that is looked at, and a name that must not be. */
    static HandlerRecord filter(const char *address)
    {
        HandlerRecord record = handler("no such name", address);

        record.priority = 77;
        record.executable = "not used";
        record.context = "not used";
        record.protect_on_restore = true;
        return record;
    }

    static HandlerRecord global_filter(const char *address)
    {
        HandlerRecord record = filter(address);

        record.type = HANDLER_TYPE_GLOBAL;
        return record;
    }

    void add_global(const char *name, const char *address)
    {
        HandlerRecord record = handler(name, address);

        record.type = HANDLER_TYPE_GLOBAL;
        store.add(record);
    }

    int select(const HandlerRecord &wanted)
    {
        return handlers_db_select_to_run(nullptr, list.get(), &wanted);
    }
};

class SelectByAddress : public Select
{
protected:
    int select_exact(const char *address)
    {
        return handlers_db_select_by_address(nullptr, list.get(), address, true);
    }
    int select_domain(const char *address)
    {
        return handlers_db_select_by_address(nullptr, list.get(), address, false);
    }
};

/* What looks like the domain d.test stands beside it. */
class SelectByDomain : public SelectByAddress
{
protected:
    SelectByDomain()
    {
        for (const char *address :
             {"a@d.test", "b@d.test", "d.test", "a@d.test.org", "d.test.org", "a@sub.d.test", "sub.d.test",
              "a@other.test", "d.test@other.test", "all", "all-recipients"})
            add("spam", address);
    }

    const Lines own_handlers = {"a@d.test spam", "b@d.test spam", "d.test spam"};
};

TEST_F(SelectToRun, ListRunsFromTheLowestPriorityToTheHighest)
{
    add("fifty", "a@d.test", 50);
    add("ten", "a@d.test", 10);
    add("ninety", "a@d.test", 90);
    EXPECT_EQ(select(filter("a@d.test")), 0);
    EXPECT_EQ(found(), (Lines{"a@d.test ten", "a@d.test fifty", "a@d.test ninety"}));
}

TEST_F(SelectToRun, RecordHasTheRowsTextsAndOtherwiseTheFiltersFields)
{
    store.add({50, 1, 2, "spam", "a@d.test", "/program", "argument", true, true});
    EXPECT_EQ(select(filter("a@d.test")), 0);
    EXPECT_EQ(texts_of(*list.get()), Lines{"2|1|1|0|spam|a@d.test|/program|argument|0"});
}

TEST_F(SelectToRun, QueueTypeEnabledAndAddressMustMatch)
{
    const HandlerRecord wanted = handler("wanted", "a@d.test");
    HandlerRecord queue = wanted, type = wanted, enabled = wanted, address = wanted;

    queue.queue = 3;
    type.type = 3;
    enabled.enabled = false;
    address.address = "b@d.test";
    queue.name = type.name = enabled.name = address.name = "other";
    for (const HandlerRecord &record : {wanted, queue, type, enabled, address})
        store.add(record);
    EXPECT_EQ(select(filter("a@d.test")), 0);
    EXPECT_EQ(found(), Lines{"a@d.test wanted"});
}

TEST_F(SelectToRun, DisabledHandlersAreFoundByADisabledFilter)
{
    HandlerRecord disabled = handler("disabled", "a@d.test"), wanted = filter("a@d.test");

    disabled.enabled = wanted.enabled = false;
    store.add(disabled);
    add("enabled", "a@d.test");
    EXPECT_EQ(select(wanted), 0);
    EXPECT_EQ(texts_of(*list.get()), Lines{"2|1|0|0|disabled|a@d.test|/hook|none|0"});
}

/* The filter binds 0 or 1: an enabled of 2 is neither. */
TEST_F(SelectToRun, EnabledIsComparedWithOneExactly)
{
    add("spam", "a@d.test");
    store.execute("UPDATE handlers SET enabled = 2");
    EXPECT_EQ(select(filter("a@d.test")), 0);
    EXPECT_TRUE(found().empty());
}

TEST_F(SelectToRun, AddressIsComparedExactly)
{
    add("spam", "a@d.test");
    for (const char *address : {"A@d.test", "@d.test", "d.test", "a@d.tes", "%", ""})
        EXPECT_EQ(select(filter(address)), 0);
    EXPECT_TRUE(found().empty());
}

TEST_F(SelectToRun, HandlersOfAllAreNotMergedIn)
{
    add("one", "a@d.test");
    add("other", "all");
    add_global("everywhere", "all");
    add_global("everywhere", "all-recipients");
    EXPECT_EQ(select(filter("a@d.test")), 0);
    EXPECT_EQ(found(), Lines{"a@d.test one"});
}

TEST_F(SelectToRun, KeyIsCutTo501Characters)
{
    const std::string kept(501, 'k');

    add("whole", kept.c_str());
    add("longer", (kept + 'k').c_str());
    EXPECT_EQ(select(filter((kept + "k").c_str())), 0);
    EXPECT_EQ(found(), Lines{kept + " whole"});
}

TEST_F(SelectToRun, KeyOf501CharactersIsNotCut)
{
    const std::string key(501, 'k');

    add("whole", key.c_str());
    add("shorter", std::string(500, 'k').c_str());
    EXPECT_EQ(select(filter(key.c_str())), 0);
    EXPECT_EQ(found(), Lines{key + " whole"});
}

TEST_F(SelectToRun, NoAddressIsAnEmptyOne)
{
    add("spam", "a@d.test");
    add("odd", "");
    EXPECT_EQ(select(filter(nullptr)), 0);
    EXPECT_EQ(found(), Lines{" odd"});
}

TEST_F(SelectToRun, GlobalFilterWithoutAddressFindsTheHandlersOfAll)
{
    add_global("every", "all");
    add_global("rest", "all-recipients");
    add("other type", "all");
    EXPECT_EQ(select(global_filter(nullptr)), 0);
    EXPECT_EQ(texts_of(*list.get()), Lines{"2|4|1|0|every|all|/hook|none|0"});
}

TEST_F(SelectToRun, GlobalFilterTakesTheTwoWordsAsTheyAre)
{
    add_global("every", "all");
    add_global("rest", "all-recipients");
    EXPECT_EQ(select(global_filter("all")), 0);
    EXPECT_EQ(select(global_filter("all-recipients")), 0);
    EXPECT_EQ(found(), (Lines{"all-recipients rest", "all every"}));
}

TEST_F(SelectToRun, GlobalFilterWithAnyOtherAddressIsRejectedBeforeAnythingIsOpened)
{
    store.remove(); /* an open would be reported */
    for (const std::string address : {"", "ALL", "a@d.test", "all "}) {
        EXPECT_EQ(select(global_filter(address.c_str())), -1);
        EXPECT_EQ(log.take_one(), "3 Incorrect recipient address for global handler `" + address +
                                      "', expected [NULL|all|all-recipients]");
    }
}

TEST_F(SelectToRun, NullColumnsAreNullTexts)
{
    make_lax_store();
    store.execute("INSERT INTO handlers VALUES (2, 1, 1, 10, NULL, 'a@d.test', NULL, NULL, NULL)");
    EXPECT_EQ(select(filter("a@d.test")), 0);
    EXPECT_EQ(texts_of(*list.get()), Lines{"2|1|1|0|NULL|a@d.test|NULL|NULL|0"});
}

TEST_F(SelectToRun, FoundRecordsAreAddedToTheList)
{
    const HandlerRecord before = handler("before", "x@d.test");

    ASSERT_EQ(handler_list_append(list.get(), &before), 0);
    add("spam", "a@d.test");
    EXPECT_EQ(select(filter("a@d.test")), 0);
    EXPECT_EQ(found(), (Lines{"a@d.test spam", "x@d.test before"}));
}

/* The row of the highest priority is kept, the next is not, and nobody asks for a third. */
TEST_F(SelectToRun, RowThatCannotBeKeptEndsTheReadWithTwoReports)
{
    for (int priority : {10, 50, 90})
        add(priority == 90 ? "kept" : priority == 50 ? "lost" : "never", "a@d.test", priority);
    /* A kept row takes six: node, record and four texts. */
    const int result = without_memory(7, [&] { return select(filter("a@d.test")); });
    EXPECT_EQ(result, -1);
    const Lines lines = log.take();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0], out_of_memory);
    EXPECT_EQ(lines[1], not_kept);
    EXPECT_EQ(lines[2].rfind("3 Unable to get data from mail handlers database: ", 0), 0U) << lines[2];
    EXPECT_EQ(found(), Lines{"a@d.test kept"});
}

TEST_F(SelectToRun, RowThatCannotBeKeptLeavesTheCallersConnectionOpen)
{
    StoreConnection connection = store.open(OpenMode::read_only);
    const HandlerRecord wanted = filter("a@d.test");

    add("lost", "a@d.test");
    {
        const AllocFaults faults(1);
        EXPECT_EQ(handlers_db_select_to_run(&connection, list.get(), &wanted), -1);
    }
    EXPECT_EQ(log.take().size(), 3U);
    EXPECT_TRUE(connection.is_open());
}

TEST_F(SelectToRun, FailedReadIsReportedWithItsReasonAndLeavesTheCallersConnectionOpen)
{
    const HandlerRecord wanted = filter("d.test");

    store.make_unreadable();
    StoreConnection connection = store.open(OpenMode::read_only);
    EXPECT_EQ(handlers_db_select_to_run(&connection, list.get(), &wanted), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to get data from mail handlers database: integer overflow");
    EXPECT_TRUE(connection.is_open());
}

TEST_F(SelectByDomain, FindsTheDomainsMailboxesAndTheDomainItself)
{
    EXPECT_EQ(select_domain("d.test"), 0);
    EXPECT_EQ(sorted(found()), own_handlers);
}

TEST_F(SelectByDomain, MailboxMeansItsWholeDomain)
{
    EXPECT_EQ(select_domain("nobody@d.test"), 0);
    EXPECT_EQ(sorted(found()), own_handlers);
}

TEST_F(SelectByDomain, DomainIsWhatFollowsTheFirstAtSign)
{
    add("odd", "x@y@d.test");
    EXPECT_EQ(select_domain("z@y@d.test"), 0);
    EXPECT_EQ(found(), Lines{"x@y@d.test odd"});
}

/* LIKE takes either case and knows wildcards; the rows' own domains, compared byte for byte, do not. */
TEST_F(SelectByDomain, CapitalsAndWildcardsFindNothing)
{
    for (const char *domain : {"D.TEST", "d_test", "%", "_.test", "d.test%", "", "d.tes"})
        EXPECT_EQ(select_domain(domain), 0) << domain;
    EXPECT_TRUE(found().empty());
}

TEST_F(SelectByDomain, DomainWithWildcardsInItsNameFindsItselfOnly)
{
    add("odd", "a@d_test");
    add("odd", "a@50%.test");
    EXPECT_EQ(select_domain("d_test"), 0);
    EXPECT_EQ(select_domain("50%.test"), 0);
    EXPECT_EQ(found(), (Lines{"a@50%.test odd", "a@d_test odd"}));
}

TEST_F(SelectByDomain, GlobalWordIsLikeABareDomain)
{
    EXPECT_EQ(select_domain("all"), 0);
    EXPECT_EQ(found(), Lines{"all spam"});
}

TEST_F(SelectByAddress, RecordHasAllColumnsButProtected)
{
    store.add({50, 7, 3, "spam", "a@d.test", "/program", "argument", true, true});
    EXPECT_EQ(select_domain("d.test"), 0);
    EXPECT_EQ(texts_of(*list.get()), Lines{"3|7|1|50|spam|a@d.test|/program|argument|0"});
}

TEST_F(SelectByAddress, EnabledIsAnythingButZero)
{
    for (const char *name : {"-1", "0", "1", "2"})
        add(name, "a@d.test");
    store.execute("UPDATE handlers SET enabled = CAST(name AS INTEGER)");
    EXPECT_EQ(select_domain("d.test"), 0);
    EXPECT_EQ(sorted(texts_of(*list.get())),
              (Lines{"2|1|0|10|0|a@d.test|/hook|none|0", "2|1|1|10|-1|a@d.test|/hook|none|0",
                     "2|1|1|10|1|a@d.test|/hook|none|0", "2|1|1|10|2|a@d.test|/hook|none|0"}));
}

TEST_F(SelectByAddress, ListRunsInTheReverseOfTheRows)
{
    make_lax_store();
    for (const char *name : {"first", "second", "third"})
        add(name, "d.test");
    EXPECT_EQ(select_exact("d.test"), 0);
    EXPECT_EQ(found(), (Lines{"d.test third", "d.test second", "d.test first"}));
}

TEST_F(SelectByAddress, ExactFormFindsBareDomainsAndTheGlobalWords)
{
    for (const char *address : {"d.test", "all", "all-recipients"}) {
        OwnedHandlerList own;

        add("spam", address);
        EXPECT_EQ(handlers_db_select_by_address(nullptr, own.get(), address, true), 0);
        EXPECT_EQ(names_of(own.get()), Lines{std::string(address) + " spam"});
    }
}

TEST_F(SelectByAddress, ExactFormDoesNotFindTheDomainsMailboxes)
{
    add("spam", "a@d.test");
    add("spam", "d.test.org");
    EXPECT_EQ(select_exact("d.test"), 0);
    EXPECT_TRUE(found().empty());
}

TEST_F(SelectByAddress, ExactFormNeverFindsAMailbox)
{
    add("spam", "a@d.test");
    add("spam", "d.test");
    EXPECT_EQ(select_exact("a@d.test"), 0);
    EXPECT_TRUE(found().empty());
}

TEST_F(SelectByAddress, ExactFormComparesCase)
{
    add("spam", "d.test");
    EXPECT_EQ(select_exact("D.test"), 0);
    EXPECT_TRUE(found().empty());
}

TEST_F(SelectByAddress, NullColumnsAreNullTextsAndZeros)
{
    make_lax_store();
    store.execute("INSERT INTO handlers VALUES (NULL, NULL, NULL, NULL, NULL, 'a@d.test', NULL, NULL, NULL)");
    EXPECT_EQ(select_domain("d.test"), 0);
    EXPECT_EQ(texts_of(*list.get()), Lines{"0|0|0|0|NULL|a@d.test|NULL|NULL|0"});
}

/* The first row is kept, the second is not, the third is. */
TEST_F(SelectByAddress, RowThatCannotBeKeptIsReportedAndTheOthersAreRead)
{
    make_lax_store();
    for (const char *name : {"first", "lost", "third"})
        add(name, "d.test");
    /* A kept row takes six: node, record and four texts. */
    const int result = without_memory(7, [&] { return select_exact("d.test"); });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(log.take(), (Lines{out_of_memory, not_kept}));
    EXPECT_EQ(found(), (Lines{"d.test third", "d.test first"}));
}

TEST_F(SelectByAddress, RowThatCannotBeKeptLeavesTheCallersConnectionOpen)
{
    StoreConnection connection = store.open(OpenMode::read_only);

    add("lost", "d.test");
    {
        const AllocFaults faults(2); /* the record's copy, this time */
        EXPECT_EQ(handlers_db_select_by_address(&connection, list.get(), "d.test", true), -1);
    }
    EXPECT_EQ(log.take(), (Lines{out_of_memory, "3 Unable to clone handlers data record", not_kept}));
    EXPECT_TRUE(connection.is_open());
}

/* SQLite would have to roll it back first, and a select opens the store for reading only. */
TEST_F(SelectByAddress, JournalOfAKilledWriterIsAFailureUntilSomebodyWrites)
{
    add("spam", "d.test");
    kill_writer(store.path(), "DELETE FROM handlers");
    EXPECT_EQ(handlers_db_select_by_address(nullptr, list.get(), "d.test", true), -1);
    EXPECT_EQ(log.take_one(), unprepared(select_exact_sql, "attempt to write a readonly database"));
    EXPECT_TRUE(found().empty());
    EXPECT_EQ(handlers_db_remove_by_address(nullptr, "other.test"), 0);
    EXPECT_EQ(handlers_db_select_by_address(nullptr, list.get(), "d.test", true), 0);
    EXPECT_EQ(found(), Lines{"d.test spam"});
}

TEST_F(SelectByAddress, FailedReadIsReportedWithItsReasonAndLeavesTheCallersConnectionOpen)
{
    store.make_unreadable();
    StoreConnection connection = store.open(OpenMode::read_only);

    for (const bool exact : {true, false}) {
        EXPECT_EQ(handlers_db_select_by_address(&connection, list.get(), "d.test", exact), -1);
        EXPECT_EQ(log.take_one(), "3 Unable to select data from handlers database: integer overflow");
        EXPECT_TRUE(connection.is_open());
    }
}

} // namespace

} // namespace kolmo::testing
