#include "handlers_store/handler_record.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/log.h"
#include "common/owned.h"

namespace kolmo
{

namespace
{

/* The texts of an owning record come from malloc; only borrowers need them const. */
void free_text(const char *text)
{
    std::free(const_cast<char *>(text));
}

const char *copy_text(const char *text)
{
    return text != nullptr ? strdup(text) : nullptr;
}

/* Zero-filled memory for one T, or null with the failure logged. */
template <typename T>
Owned<T> allocate()
{
    Owned<T> memory(static_cast<T *>(std::calloc(1, sizeof(T))));

    if (memory == nullptr)
        log_message(LOG_ERR, "System error: %s", std::strerror(errno));
    return memory;
}

} // namespace

void handler_record_init(HandlerRecord *record)
{
    if (record == nullptr)
        return;
    *record = {};
    record->type = 5;
    record->queue = 5;
}

HandlerRecord *handler_record_new()
{
    Owned<HandlerRecord> record = allocate<HandlerRecord>();

    handler_record_init(record.get());
    return record.release();
}

HandlerRecord *handler_record_clone(const HandlerRecord *source)
{
    if (source == nullptr)
        return nullptr;

    HandlerRecord *const record = handler_record_new();

    if (record == nullptr)
        return nullptr;
    *record = *source;
    record->name = copy_text(source->name);
    record->address = copy_text(source->address);
    record->executable = copy_text(source->executable);
    record->context = copy_text(source->context);
    return record;
}

void handler_record_free_fields(HandlerRecord *record)
{
    if (record == nullptr)
        return;
    free_text(record->address);
    free_text(record->executable);
    free_text(record->context);
    free_text(record->name);
}

void handler_record_free(HandlerRecord *record)
{
    handler_record_free_fields(record);
    std::free(record);
}

int handler_list_init(HandlerList *list)
{
    list->head = nullptr;
    return 0;
}

int handler_list_append(HandlerList *list, const HandlerRecord *record)
{
    Owned<HandlerNode> node = allocate<HandlerNode>();

    if (node == nullptr)
        return -1;
    node->record = handler_record_clone(record);
    if (node->record == nullptr) {
        node.reset();
        log_message(LOG_ERR, "Unable to clone handlers data record");
        return -1;
    }
    node->next = list->head;
    node->back_link = &list->head;
    if (node->next != nullptr)
        node->next->back_link = &node->next;
    list->head = node.release();
    return 0;
}

void handler_list_free(HandlerList *list)
{
    HandlerNode *node = list != nullptr ? list->head : nullptr;

    while (node != nullptr) {
        HandlerNode *const next = node->next;

        handler_record_free(node->record);
        std::free(node);
        node = next;
    }
}

} // namespace kolmo
