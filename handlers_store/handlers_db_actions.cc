#include "handlers_store/handlers_db.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/log.h"
#include "handlers_store/global_address.h"
#include "handlers_store/handlers_store_op.h"

namespace kolmo
{

namespace
{

constexpr Sql<9> insert_sql =
    "INSERT OR REPLACE INTO handlers(priority, name, type, address, queue, executable, context, protected, "
    "enabled) VALUES(?, ?, ?, LOWER(?), ?, ?, ?, ?, ?)";

constexpr Sql<3> delete_everywhere_sql = "DELETE FROM handlers WHERE name=? AND type=? AND queue=?";

constexpr Sql<4> delete_one_sql =
    "DELETE FROM handlers WHERE name=? AND type=? AND address=LOWER(?) AND queue=?";

constexpr TextFormat<1> delete_refused = "Unable to execute delete record from handlers database: %s";

/* Whether a delete of this record means the handler of every address. */
bool is_wildcard(const HandlerRecord *record)
{
    const char *const address = record->address;

    return record->type == HANDLER_TYPE_GLOBAL || address == nullptr || *address == '\0' ||
           std::strcmp(address, address_all) == 0;
}

/* Gives an owning record the address "all". */
int set_address_all(HandlerRecord *record)
{
    std::free(const_cast<char *>(record->address));
    record->address = strdup(address_all);
    if (record->address != nullptr)
        return 0;
    log_message(LOG_ERR, "System error: %s", std::strerror(errno));
    return -1;
}

Ending delete_everywhere(StoreOp &op, const HandlerRecord *record)
{
    const std::array key = {
        bind_text(record->name, "Unable to bind parameter 'name' to the 'DELETE' query: %s"),
        bind_int(record->type, "Unable to bind parameter 'type' to the 'DELETE' query: %s"),
        bind_int(record->queue, "Unable to bind parameter 'queue' to the 'DELETE' query: %s"),
    };

    return execute_write(op, delete_everywhere_sql, key, delete_refused);
}

Ending delete_one(StoreOp &op, const HandlerRecord *record)
{
    const std::array key = {
        bind_text(record->name, "Unable to bind parameter 'name' to the 'DELETE' query: %s"),
        bind_int(record->type, "Unable to bind parameter 'type' to the 'DELETE' query: %s"),
        bind_text(record->address, "Unable to bind parameter 'address' to the 'DELETE' query: %s"),
        bind_int(record->queue, "Unable to bind parameter 'queue' to the 'DELETE' query: %s"),
    };

    return execute_write(op, delete_one_sql, key, delete_refused);
}

} // namespace

Ending run_actions(StoreOp &op, const HandlerList *list, HandlerAction action)
{
    op.begin();
    for (const HandlerNode *node = list != nullptr ? list->head : nullptr;
         node != nullptr && op.ending() == Ending::done; node = node->next) {
        /* A record that fails is left out; the others are committed without it. */
        (void)action(op.connection(), node->record);
        if (!op.connection()->is_open())
            return op.connection()->is_abandoned() ? Ending::abandoned : Ending::failed;
    }
    return op.end();
}

const char *handlers_global_address(const char *address)
{
    if (address == nullptr || *address == '\0')
        return address_all;
    if (is_global_address(address))
        return address;
    log_message(LOG_ERR, "Incorrect recipient address for global handler, expected [NULL|EMPTY_STRING|%s|%s]",
                address_all, address_all_recipients);
    return nullptr;
}

int handlers_db_insert_action(StoreConnection *connection, HandlerRecord *record)
{
    const bool global = record->type == HANDLER_TYPE_GLOBAL;
    const char *const address = global ? handlers_global_address(record->address) : record->address;
    const char *const context = record->context != nullptr ? record->context : "none";

    if (global && address == nullptr)
        return -1;

    const std::array row = {
        bind_int(record->priority, "Unable to bind parameter 'priority' to the 'INSERT' query: %s"),
        bind_text(record->name, "Unable to bind parameter 'name' to the 'INSERT' query: %s"),
        bind_int(record->type, "Unable to bind parameter 'type' to the 'INSERT' query: %s"),
        bind_text(address, "Unable to bind parameter 'address' to the 'INSERT' query: %s"),
        bind_int(record->queue, "Unable to bind parameter 'queue' to the 'INSERT' query: %s"),
        /* Reported as the address: docs/compatibility.md. */
        bind_text(record->executable, "Unable to bind parameter 'address' to the 'INSERT' query: %s"),
        bind_text(context, "Unable to bind parameter 'context' to the 'INSERT' query: %s"),
        bind_int(record->protect_on_restore,
                 "Unable to bind parameter 'protect_on_restore' to the 'INSERT' query: %s"),
        bind_int(record->enabled, "Unable to bind parameter 'enabled' to the 'INSERT' query: %s"),
    };

    return to_result(with_handlers_store(connection, OpenMode::read_write, [&](StoreOp &op) {
        return execute_write(op, insert_sql, row,
                             "Unable to execute insert record into handlers database: %s");
    }));
}

int handlers_db_delete_action(StoreConnection *connection, HandlerRecord *record)
{
    const bool everywhere = is_wildcard(record);

    if (everywhere && set_address_all(record) != 0)
        return -1;
    return to_result(with_handlers_store(connection, OpenMode::read_write, [&](StoreOp &op) {
        return everywhere ? delete_everywhere(op, record) : delete_one(op, record);
    }));
}

int handlers_db_run_actions(const HandlerList *list, StoreConnection *connection, HandlerAction action)
{
    return to_result(with_handlers_store(connection, OpenMode::read_write,
                                         [&](StoreOp &op) { return run_actions(op, list, action); }));
}

} // namespace kolmo
