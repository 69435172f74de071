/*
 * handlers_client: a mail server's side of the handlers store.
 *
 * Creates a store's file at the path that it is given, adds three handlers, asks which of them run for a
 * recipient and in what order, and removes the domain again.
 */
#include <cstdio>

#include "handlers_store/handlers_db.h"

namespace
{

int add_handler(const char *name, int priority)
{
    kolmo::HandlerRecord handler;

    kolmo::handler_record_init(&handler);
    handler.priority = priority;
    handler.type = 1;
    handler.queue = 2;
    handler.name = name;
    handler.address = "Jane@Example.com"; /* stored in lower case */
    handler.executable = "/usr/lib/handlers/run";
    handler.enabled = true;
    return kolmo::handlers_db_insert_action(nullptr, &handler);
}

/* The list runs from the lowest priority to the highest: what runs first comes last. */
int print_handlers(const char *address)
{
    kolmo::HandlerRecord filter;
    kolmo::HandlerList list;

    kolmo::handler_record_init(&filter);
    filter.type = 1;
    filter.queue = 2;
    filter.enabled = true;
    filter.address = address;
    kolmo::handler_list_init(&list);

    const int result = kolmo::handlers_db_select_to_run(nullptr, &list, &filter);

    std::printf("%s:", address);
    for (const kolmo::HandlerNode *node = list.head; node != nullptr; node = node->next)
        std::printf(" %s", node->record->name);
    std::printf("\n");
    kolmo::handler_list_free(&list);
    return result;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FILE\n", argv[0]);
        return 2;
    }
    kolmo::handlers_db_set_path(argv[1]);
    /* handlers_db_create would give the file to the panel's group, too; the example need not be root. */
    if (kolmo::handlers_db_create_schema() != 0 || add_handler("autoresponder", 90) != 0 ||
        add_handler("spam-filter", 50) != 0 || add_handler("archive", 10) != 0 ||
        print_handlers("jane@example.com") != 0 ||
        kolmo::handlers_db_remove_domain(nullptr, "example.com") != 0)
        return 1;
    return print_handlers("jane@example.com") != 0;
}
