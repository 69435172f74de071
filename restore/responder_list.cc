#include "restore/responder_list.h"

#include <cstdlib>
#include <cstring>

#include "common/owned.h"
#include "panel/panel_db.h"

namespace kolmo
{

namespace
{

struct TextColumn {
    int column;
    char *ResponderRecord::*field;
};

struct NumberColumn {
    int column;
    std::int32_t ResponderRecord::*field;
};

const TextColumn text_columns[] = {
    {2, &ResponderRecord::resp_name},  {3, &ResponderRecord::keystr},
    {4, &ResponderRecord::key_where},  {5, &ResponderRecord::subject},
    {6, &ResponderRecord::reply_to},   {7, &ResponderRecord::content_type},
    {8, &ResponderRecord::charset},    {9, &ResponderRecord::text},
    {10, &ResponderRecord::resp_on},   {13, &ResponderRecord::forward_address},
    {14, &ResponderRecord::mail_name},
};

const NumberColumn number_columns[] = {
    {0, &ResponderRecord::id},
    {1, &ResponderRecord::mn_id},
    {11, &ResponderRecord::ans_freq},
    {12, &ResponderRecord::mem_limit},
};

} // namespace

ResponderRecord *responder_record_from_row(MYSQL_ROW row)
{
    OwnedResponderRecord record(static_cast<ResponderRecord *>(std::calloc(1, sizeof(ResponderRecord))));

    if (record == nullptr)
        return nullptr;
    for (const NumberColumn &number : number_columns)
        record.get()->*number.field =
            static_cast<std::int32_t>(std::strtol(panel_text(row[number.column]), nullptr, 10));
    for (const TextColumn &text : text_columns) {
        char *const copy = strdup(panel_text(row[text.column]));

        if (copy == nullptr)
            return nullptr;
        record.get()->*text.field = copy;
    }
    return record.release();
}

void responder_record_free(ResponderRecord *record)
{
    if (record == nullptr)
        return;
    for (const TextColumn &text : text_columns)
        std::free(record->*text.field);
    std::free(record);
}

void responder_list_init(ResponderList *list)
{
    list->head = nullptr;
}

ResponderRecord *responder_list_add(ResponderList *list, ResponderRecord *record)
{
    auto *const node = static_cast<ResponderNode *>(std::malloc(sizeof(ResponderNode)));

    if (node == nullptr)
        return nullptr;
    *node = {record, list->head, &list->head};
    if (node->next != nullptr)
        node->next->back_link = &node->next;
    list->head = node;
    return record;
}

ResponderRecord *responder_list_find(const ResponderList *list, std::int32_t mn_id)
{
    for (const ResponderNode *node = list->head; node != nullptr; node = node->next) {
        if (node->record->mn_id == mn_id)
            return node->record;
    }
    return nullptr;
}

void responder_list_free(ResponderList *list)
{
    while (list->head != nullptr) {
        const Owned<ResponderNode> node(list->head);

        list->head = node->next;
        responder_record_free(node->record);
    }
}

} // namespace kolmo
