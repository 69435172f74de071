/* Rows of the panel's autoresponders: what becomes of each column, and which record is found. */
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "restore/responder_list.h"
#include "tests/fuzz/fuzz_support.h"

namespace kolmo::testing
{

namespace
{

constexpr std::size_t columns = 15;

/* A column is a text, or none at all. */
struct Row {
    std::array<std::string, columns> texts;
    std::array<bool, columns> nulls{};

    [[nodiscard]] const std::string &text(std::size_t column) const { return texts[column]; }
    [[nodiscard]] std::int32_t number(std::size_t column) const
    {
        return static_cast<std::int32_t>(leading_number(texts[column]));
    }
};

Row read_row(Input *input)
{
    Row row;

    for (std::size_t i = 0; i < columns; i++) {
        row.texts[i] = input->text();
        row.nulls[i] = row.texts[i] == "N" || (row.texts[i].empty() && input->is_empty());
        if (row.nulls[i])
            row.texts[i].clear();
    }
    return row;
}

ResponderRecord *make_record(Row *row)
{
    char *cells[columns];

    for (std::size_t i = 0; i < columns; i++)
        cells[i] = row->nulls[i] ? nullptr : row->texts[i].data();
    return responder_record_from_row(cells);
}

void compare(const ResponderRecord *record, const Row &row)
{
    require(record->id == row.number(0) && record->mn_id == row.number(1) &&
                record->ans_freq == row.number(11) && record->mem_limit == row.number(12),
            "numbers");
    require_same(record->resp_name, row.text(2), "resp_name");
    require_same(record->keystr, row.text(3), "keystr");
    require_same(record->key_where, row.text(4), "key_where");
    require_same(record->subject, row.text(5), "subject");
    require_same(record->reply_to, row.text(6), "reply_to");
    require_same(record->content_type, row.text(7), "content_type");
    require_same(record->charset, row.text(8), "charset");
    require_same(record->text, row.text(9), "text");
    require_same(record->resp_on, row.text(10), "resp_on");
    require_same(record->forward_address, row.text(13), "forward_address");
    require_same(record->mail_name, row.text(14), "mail_name");
}

/* The list from its head is the rows from the last, and each entry is led to by the one before it. */
void compare(const ResponderList &list, const std::vector<Row> &rows)
{
    ResponderNode *const *link = &list.head;

    for (auto row = rows.rbegin(); row != rows.rend(); row++) {
        require(*link != nullptr && (*link)->back_link == link, "links");
        compare((*link)->record, *row);
        link = &(*link)->next;
    }
    require(*link == nullptr, "number of entries");
}

const Row *last_with(const std::vector<Row> &rows, std::int32_t mn_id)
{
    const Row *last = nullptr;

    for (const Row &row : rows)
        last = row.number(1) == mn_id ? &row : last;
    return last;
}

} // namespace

} // namespace kolmo::testing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size)
{
    using namespace kolmo::testing;
    Input input(bytes, size);
    std::vector<Row> rows;
    kolmo::ResponderList list;

    kolmo::responder_list_init(&list);
    while (!input.is_empty()) {
        rows.push_back(read_row(&input));
        require(kolmo::responder_list_add(&list, make_record(&rows.back())) != nullptr, "memory");
    }
    compare(list, rows);
    for (const Row &row : rows) {
        const kolmo::ResponderRecord *const found = kolmo::responder_list_find(&list, row.number(1));

        require(found != nullptr, "a mailbox of the list is found");
        compare(found, *last_with(rows, row.number(1)));
    }
    if (last_with(rows, 77) == nullptr)
        require(kolmo::responder_list_find(&list, 77) == nullptr, "a mailbox that is not in the list");
    kolmo::responder_list_free(&list);
    return 0;
}
