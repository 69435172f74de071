#include "restore/responder_list.h"

#include <array>
#include <cstdlib>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/alloc_faults.h"

namespace kolmo::testing
{

namespace
{

constexpr std::size_t columns = 15;

/* A row as the client library hands it out: texts that are gone with the result. */
class Row
{
public:
    Row()
        : texts_({"101", "11", "default", "key", "subj", "Subject", "to@reply.example", "text/html", "KOI8-R",
                  "Body", "true", "7", "100", "fwd@forward.example", "Info"})
    {
        for (std::size_t i = 0; i < columns; i++)
            pointers_[i] = texts_[i].data();
    }

    void set(std::size_t column, const char *text)
    {
        texts_[column] = text != nullptr ? text : "";
        pointers_[column] = text != nullptr ? texts_[column].data() : nullptr;
    }

    [[nodiscard]] MYSQL_ROW get() { return pointers_.data(); }

private:
    std::array<std::string, columns> texts_;
    std::array<char *, columns> pointers_{};
};

OwnedResponderRecord record_of(Row &row)
{
    return OwnedResponderRecord(responder_record_from_row(row.get()));
}

struct TextField {
    std::size_t column;
    char *ResponderRecord::*field;
    const char *text;
};

const TextField text_fields[] = {
    {2, &ResponderRecord::resp_name, "default"},
    {3, &ResponderRecord::keystr, "key"},
    {4, &ResponderRecord::key_where, "subj"},
    {5, &ResponderRecord::subject, "Subject"},
    {6, &ResponderRecord::reply_to, "to@reply.example"},
    {7, &ResponderRecord::content_type, "text/html"},
    {8, &ResponderRecord::charset, "KOI8-R"},
    {9, &ResponderRecord::text, "Body"},
    {10, &ResponderRecord::resp_on, "true"},
    {13, &ResponderRecord::forward_address, "fwd@forward.example"},
    {14, &ResponderRecord::mail_name, "Info"},
};

struct NumberField {
    std::size_t column;
    std::int32_t ResponderRecord::*field;
    std::int32_t number;
};

const NumberField number_fields[] = {
    {0, &ResponderRecord::id, 101},
    {1, &ResponderRecord::mn_id, 11},
    {11, &ResponderRecord::ans_freq, 7},
    {12, &ResponderRecord::mem_limit, 100},
};

TEST(ResponderRecordFromRow, EveryColumnGoesIntoItsField)
{
    Row row;
    const OwnedResponderRecord record = record_of(row);

    for (const TextField &text : text_fields)
        EXPECT_STREQ(record.get()->*text.field, text.text) << text.column;
    for (const NumberField &number : number_fields)
        EXPECT_EQ(record.get()->*number.field, number.number) << number.column;
}

TEST(ResponderRecordFromRow, TextsAreCopiesThatOutliveTheRow)
{
    Row row;
    const OwnedResponderRecord record = record_of(row);

    for (const TextField &text : text_fields)
        row.get()[text.column][0] = '#';
    for (const TextField &text : text_fields)
        EXPECT_STREQ(record.get()->*text.field, text.text) << text.column;
}

TEST(ResponderRecordFromRow, NullTextBecomesEmpty)
{
    for (const TextField &text : text_fields) {
        Row row;
        row.set(text.column, nullptr);

        EXPECT_STREQ(record_of(row).get()->*text.field, "") << text.column;
    }
}

TEST(ResponderRecordFromRow, NullNumberIsZero)
{
    for (const NumberField &number : number_fields) {
        Row row;
        row.set(number.column, nullptr);

        EXPECT_EQ(record_of(row).get()->*number.field, 0) << number.column;
    }
}

struct Conversion {
    const char *text;
    std::int32_t number;
};

const Conversion conversions[] = {
    {"-5", -5},
    {" 42", 42},
    {"12abc", 12},
    {"010", 10}, /* base 10, whatever the text looks like */
    {"0x10", 0},
    {"", 0},
    {"none", 0},
    {"2147483647", 2147483647},
    {"2147483648", -2147483647 - 1}, /* cut to 32 bits */
    {"4294967297", 1},
    {"9223372036854775808", -1}, /* the largest long, cut */
};

TEST(ResponderRecordFromRow, NumbersAreReadInBaseTenAndCutToThirtyTwoBits)
{
    for (const NumberField &number : number_fields) {
        for (const Conversion &conversion : conversions) {
            Row row;
            row.set(number.column, conversion.text);

            EXPECT_EQ(record_of(row).get()->*number.field, conversion.number)
                << "column " << number.column << ": " << conversion.text;
        }
    }
}

/* That nothing leaks is for the leak checker of the sanitized build to say. */
TEST(ResponderRecordFromRow, NullWhicheverAllocationFails)
{
    constexpr int allocations = 1 + std::size(text_fields);
    Row row;

    for (int nth = 1; nth <= allocations; nth++) {
        ResponderRecord *record;
        {
            const AllocFaults faults(nth);
            record = responder_record_from_row(row.get());
        }
        EXPECT_EQ(record, nullptr) << nth;
    }
}

TEST(ResponderRecordFree, NullIsIgnored)
{
    responder_record_free(nullptr);
}

ResponderRecord *new_record(std::int32_t mn_id)
{
    auto *const record = static_cast<ResponderRecord *>(std::calloc(1, sizeof(ResponderRecord)));

    record->mn_id = mn_id;
    return record;
}

class ResponderListTest : public ::testing::Test
{
protected:
    ResponderListTest() { responder_list_init(&list_); }
    ~ResponderListTest() override { responder_list_free(&list_); }

    ResponderRecord *add(std::int32_t mn_id) { return responder_list_add(&list_, new_record(mn_id)); }

    [[nodiscard]] std::vector<std::int32_t> keys() const
    {
        std::vector<std::int32_t> keys;

        for (const ResponderNode *node = list_.head; node != nullptr; node = node->next)
            keys.push_back(node->record->mn_id);
        return keys;
    }

    ResponderList list_;
};

TEST_F(ResponderListTest, InitMakesItEmptyWhateverItHeld)
{
    ResponderNode node = {};
    ResponderList list = {&node};

    responder_list_init(&list);

    EXPECT_EQ(list.head, nullptr);
}

TEST_F(ResponderListTest, NewRecordsGoInAtTheHead)
{
    for (const std::int32_t key : {1, 2, 3})
        add(key);

    EXPECT_EQ(keys(), (std::vector<std::int32_t>{3, 2, 1}));
}

TEST_F(ResponderListTest, AddReturnsTheRecordThatIsNowTheLists)
{
    ResponderRecord *const record = new_record(1);

    EXPECT_EQ(responder_list_add(&list_, record), record);
    EXPECT_EQ(list_.head->record, record);
}

TEST_F(ResponderListTest, BackLinksLeadToThePointersThatLeadHere)
{
    int walked = 0;

    for (const std::int32_t key : {1, 2, 3})
        add(key);
    for (ResponderNode **link = &list_.head; *link != nullptr; link = &(*link)->next) {
        EXPECT_EQ((*link)->back_link, link);
        walked++;
    }
    EXPECT_EQ(walked, 3);
}

TEST_F(ResponderListTest, AddWithoutMemoryGivesNullAndLeavesTheRecordToTheCaller)
{
    const OwnedResponderRecord record(new_record(2));
    const ResponderRecord *added;

    add(1);
    {
        const AllocFaults faults(1);
        added = responder_list_add(&list_, record.get());
    }
    EXPECT_EQ(added, nullptr);
    EXPECT_EQ(record->mn_id, 2); /* not freed: the sanitizer would say so */
    EXPECT_EQ(keys(), std::vector<std::int32_t>{1});
}

TEST_F(ResponderListTest, FindGivesTheRecordThatWasAddedLast)
{
    add(7);
    const ResponderRecord *const last = add(7);
    add(8);

    EXPECT_EQ(responder_list_find(&list_, 7), last);
}

TEST_F(ResponderListTest, FindWithoutSuchARecordGivesNull)
{
    EXPECT_EQ(responder_list_find(&list_, 0), nullptr);
    add(7);
    EXPECT_EQ(responder_list_find(&list_, 8), nullptr);
}

TEST_F(ResponderListTest, FreeLeavesAnEmptyListThatCanBeUsedAgain)
{
    add(1);
    add(2);
    responder_list_free(&list_);
    EXPECT_EQ(list_.head, nullptr);

    add(3);
    EXPECT_EQ(keys(), std::vector<std::int32_t>{3});
}

TEST_F(ResponderListTest, FreeOfAnEmptyListDoesNothing)
{
    responder_list_free(&list_);
    EXPECT_EQ(list_.head, nullptr);
}

} // namespace

} // namespace kolmo::testing
