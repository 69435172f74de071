#include "handlers_store/handler_record.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/handlers_store/handlers_texts.h"
#include "tests/support/alloc_faults.h"
#include "tests/support/handlers_store_fixture.h"
#include "tests/support/log_capture.h"

namespace kolmo::testing
{

namespace
{

class HandlerRecordTest : public ::testing::Test
{
protected:
    LogCapture log;
};

class HandlerListTest : public HandlerRecordTest
{
protected:
    HandlerListTest() { EXPECT_EQ(handler_list_init(&list), 0); }
    ~HandlerListTest() override { handler_list_free(&list); }

    HandlerList list;
};

/* A record that differs from the defaults in every field. */
HandlerRecord full_record()
{
    return {-7, 1, 2, "autoresponder", "a@d.test", "/hook", "argument", true, true};
}

const HandlerRecord defaults = {0, 5, 5, nullptr, nullptr, nullptr, nullptr, false, false};

TEST_F(HandlerRecordTest, InitGivesTypeAndQueueFiveAndNothingElse)
{
    HandlerRecord record = full_record();

    handler_record_init(&record);
    EXPECT_EQ(text_of(record), "5|5|0|0|NULL|NULL|NULL|NULL|0");
    EXPECT_EQ(text_of(record), text_of(defaults));
}

TEST_F(HandlerRecordTest, NewHasTheDefaults)
{
    HandlerRecord *const record = handler_record_new();

    ASSERT_NE(record, nullptr);
    EXPECT_EQ(text_of(*record), text_of(defaults));
    handler_record_free(record);
}

TEST_F(HandlerRecordTest, NewWithoutMemoryIsLoggedAndNull)
{
    HandlerRecord *record = without_memory(1, [&] { return handler_record_new(); });
    EXPECT_EQ(record, nullptr);
    EXPECT_EQ(log.take_one(), out_of_memory);
}

TEST_F(HandlerRecordTest, CloneCopiesEveryField)
{
    const HandlerRecord source = full_record();
    HandlerRecord *const clone = handler_record_clone(&source);

    ASSERT_NE(clone, nullptr);
    EXPECT_EQ(text_of(*clone), "2|1|1|-7|autoresponder|a@d.test|/hook|argument|1");
    handler_record_free(clone);
}

TEST_F(HandlerRecordTest, CloneOwnsTextsOfItsOwn)
{
    const HandlerRecord source = full_record();
    HandlerRecord *const clone = handler_record_clone(&source);

    ASSERT_NE(clone, nullptr);
    EXPECT_NE(clone->name, source.name);
    EXPECT_NE(clone->address, source.address);
    EXPECT_NE(clone->executable, source.executable);
    EXPECT_NE(clone->context, source.context);
    handler_record_free(clone);
}

TEST_F(HandlerRecordTest, CloneOfNullTextsHasNullTexts)
{
    HandlerRecord *const clone = handler_record_clone(&defaults);

    ASSERT_NE(clone, nullptr);
    EXPECT_EQ(text_of(*clone), text_of(defaults));
    handler_record_free(clone);
}

TEST_F(HandlerRecordTest, CloneWithoutMemoryForTheRecordIsLoggedAndNull)
{
    const HandlerRecord source = full_record();
    HandlerRecord *clone = without_memory(1, [&] { return handler_record_clone(&source); });
    EXPECT_EQ(clone, nullptr);
    EXPECT_EQ(log.take_one(), out_of_memory);
}

/* One text after the other cannot be copied: exactly that one is null, and nobody is told. */
TEST_F(HandlerRecordTest, CloneWithoutMemoryForATextLeavesThatTextNull)
{
    const Lines clones = {
        "2|1|1|-7|NULL|a@d.test|/hook|argument|1",
        "2|1|1|-7|autoresponder|NULL|/hook|argument|1",
        "2|1|1|-7|autoresponder|a@d.test|NULL|argument|1",
        "2|1|1|-7|autoresponder|a@d.test|/hook|NULL|1",
    };
    const HandlerRecord source = full_record();
    int nth = 2; /* the first is the record's own memory */

    for (const std::string &expected : clones) {
        HandlerRecord *clone = without_memory(nth++, [&] { return handler_record_clone(&source); });
        ASSERT_NE(clone, nullptr);
        EXPECT_EQ(text_of(*clone), expected);
        handler_record_free(clone);
    }
}

TEST_F(HandlerRecordTest, FreeFieldsLeavesTheFieldsAsTheyWere)
{
    const HandlerRecord source = full_record();
    HandlerRecord *const record = handler_record_clone(&source);
    ASSERT_NE(record, nullptr);
    const HandlerRecord before = *record;

    handler_record_free_fields(record);
    EXPECT_EQ(std::memcmp(record, &before, sizeof before), 0);
    std::free(record);
}

TEST_F(HandlerRecordTest, NullIsIgnoredAndItsCloneIsNull)
{
    handler_record_init(nullptr);
    handler_record_free_fields(nullptr);
    handler_record_free(nullptr);
    EXPECT_EQ(handler_record_clone(nullptr), nullptr);
}

TEST_F(HandlerListTest, InitMakesAnyListEmpty)
{
    HandlerNode node = {};
    HandlerList used = {&node};

    EXPECT_EQ(handler_list_init(&used), 0);
    EXPECT_EQ(used.head, nullptr);
}

TEST_F(HandlerListTest, AppendedRecordsAreMetInReverse)
{
    for (const char *name : {"A", "B", "C"}) {
        const HandlerRecord record = handler(name, "a@d.test");
        EXPECT_EQ(handler_list_append(&list, &record), 0);
    }
    EXPECT_EQ(texts_of(list), (Lines{"2|1|1|10|C|a@d.test|/hook|none|0", "2|1|1|10|B|a@d.test|/hook|none|0",
                                     "2|1|1|10|A|a@d.test|/hook|none|0"}));
}

TEST_F(HandlerListTest, EveryBackLinkIsThePointerThatLeadsToItsNode)
{
    const HandlerRecord record = handler("A", "a@d.test");
    int nodes = 0;

    for (int i = 0; i < 3; i++)
        ASSERT_EQ(handler_list_append(&list, &record), 0);
    HandlerNode **link = &list.head;
    for (HandlerNode *node = list.head; node != nullptr; node = node->next) {
        EXPECT_EQ(node->back_link, link);
        link = &node->next;
        nodes++;
    }
    EXPECT_EQ(nodes, 3);
}

TEST_F(HandlerListTest, AppendOfNullTextsKeepsThemNull)
{
    EXPECT_EQ(handler_list_append(&list, &defaults), 0);
    EXPECT_EQ(texts_of(list), Lines{"5|5|0|0|NULL|NULL|NULL|NULL|0"});
}

TEST_F(HandlerListTest, ChangingTheCallersRecordDoesNotChangeTheCopy)
{
    char name[] = "autoresponder";
    HandlerRecord record = handler(name, "a@d.test");

    ASSERT_EQ(handler_list_append(&list, &record), 0);
    name[0] = 'X';
    record.address = "b@d.test";
    record.priority = 99;
    record.enabled = false;
    EXPECT_EQ(texts_of(list), Lines{"2|1|1|10|autoresponder|a@d.test|/hook|none|0"});
}

TEST_F(HandlerListTest, AppendWithoutMemoryForTheNodeIsLogged)
{
    const HandlerRecord record = full_record();
    const int result = without_memory(1, [&] { return handler_list_append(&list, &record); });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(log.take_one(), out_of_memory);
    EXPECT_EQ(list.head, nullptr);
}

/* The sanitizer would tell of the node, were it not freed. */
TEST_F(HandlerListTest, AppendWithoutMemoryForTheRecordIsLoggedTwiceAndFreesTheNode)
{
    const HandlerRecord record = full_record();
    const int result = without_memory(2, [&] { return handler_list_append(&list, &record); });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(log.take(), (Lines{out_of_memory, "3 Unable to clone handlers data record"}));
    EXPECT_EQ(list.head, nullptr);
}

TEST_F(HandlerListTest, FailedAppendKeepsWhatTheListHeld)
{
    const HandlerRecord record = full_record();

    ASSERT_EQ(handler_list_append(&list, &record), 0);
    {
        const AllocFaults faults(2);
        EXPECT_EQ(handler_list_append(&list, &record), -1);
    }
    (void)log.take();
    EXPECT_EQ(texts_of(list).size(), 1U);
}

TEST_F(HandlerListTest, AppendOfNoRecordCannotBeClonedWhichIsLoggedWhenTheNodeIsFreed)
{
    std::size_t freed_before = 0;
    {
        const AllocFaults faults(0);

        log.on_line = [&] {
            freed_before = faults.freed().size();
        };
        EXPECT_EQ(handler_list_append(&list, nullptr), -1);
    }
    EXPECT_EQ(freed_before, 1U);
    EXPECT_EQ(log.take_one(), "3 Unable to clone handlers data record");
    EXPECT_EQ(list.head, nullptr);
}

/* The leak checker tells whether the records went with their nodes. */
TEST_F(HandlerListTest, FreeLeavesTheHeadAsItWasAndAnInitMakesTheListUsableAgain)
{
    const HandlerRecord record = full_record();

    for (int i = 0; i < 2; i++)
        ASSERT_EQ(handler_list_append(&list, &record), 0);
    const HandlerNode *const head = list.head;
    handler_list_free(&list);
    EXPECT_EQ(list.head, head);
    (void)handler_list_init(&list);
    EXPECT_EQ(handler_list_append(&list, &record), 0);
    EXPECT_EQ(texts_of(list).size(), 1U);
}

/* Of each record address, executable, context and name, then itself, then its node, from the head. */
TEST_F(HandlerListTest, FreeGoesInThisOrder)
{
    const HandlerRecord record = full_record();
    std::vector<const void *> expected;

    for (int i = 0; i < 2; i++)
        ASSERT_EQ(handler_list_append(&list, &record), 0);
    for (const HandlerNode *node = list.head; node != nullptr; node = node->next) {
        const HandlerRecord *const kept = node->record;

        expected.insert(expected.end(),
                        {kept->address, kept->executable, kept->context, kept->name, kept, node});
    }

    const AllocFaults faults(0);

    handler_list_free(&list);
    EXPECT_EQ(faults.freed(), expected);
    (void)handler_list_init(&list);
}

TEST_F(HandlerListTest, FreeingAnEmptyOrNullListDoesNothing)
{
    handler_list_free(&list);
    handler_list_free(nullptr);
    EXPECT_EQ(list.head, nullptr);
}

} // namespace

} // namespace kolmo::testing
