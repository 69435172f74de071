#include "handlers_store/handlers_db.h"

#include <array>

#include "common/log.h"
#include "handlers_store/handlers_store_op.h"

namespace kolmo
{

namespace
{

/* Every row has an address; a copy that has lost it for want of memory would stand for all of them. */
bool has_addresses(const HandlerList *list)
{
    const HandlerNode *node = list->head;

    while (node != nullptr && node->record->address != nullptr)
        node = node->next;
    return node == nullptr;
}

} // namespace

int handlers_db_exec_with_param(StoreConnection *connection, const char *sql, const char *parameter)
{
    const std::array binds = {bind_text(parameter, "Unable to bind parameter param to query: %s")};

    return to_result(with_handlers_store(connection, OpenMode::read_write, [&](StoreOp &op) {
        return execute_write(op, Sql<1>::made(sql), binds,
                             "Unable to execute do action on handlers database: %s");
    }));
}

int handlers_db_remove_by_address(StoreConnection *connection, const char *address)
{
    return handlers_db_exec_with_param(connection, "DELETE FROM handlers WHERE address=?", address);
}

int handlers_db_remove_by_name(StoreConnection *connection, const char *name)
{
    return handlers_db_exec_with_param(connection, "DELETE FROM handlers WHERE name=?", name);
}

int handlers_db_remove_domain(StoreConnection *connection, const char *domain)
{
    OwnedHandlerList list;
    bool opened = false;

    /* The read and the deletes never share a connection of our own: that of the read is read-only. */
    const Ending read = with_handlers_store(connection, OpenMode::read_only, [&](StoreOp &op) {
        opened = true;

        const Ending rows = select_by_address(op, list.get(), domain, false);

        return rows == Ending::done && !has_addresses(list.get()) ? Ending::failed : rows;
    });

    if (read == Ending::failed && opened)
        log_message(LOG_ERR, "Get handlers list");
    if (read != Ending::done)
        return to_result(read);

    const Ending removed = with_handlers_store(connection, OpenMode::read_write, [&](StoreOp &op) {
        return run_actions(op, list.get(), handlers_db_delete_action);
    });

    /* The copy's message for a deletion: docs/compatibility.md. */
    list.reset();
    if (removed == Ending::failed)
        log_message(LOG_ERR, "Unable to add records into handlers database");
    return to_result(removed);
}

} // namespace kolmo
