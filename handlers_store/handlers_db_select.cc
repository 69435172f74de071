#include "handlers_store/handlers_db.h"

#include <array>
#include <cstdio>
#include <cstring>

#include "common/log.h"
#include "handlers_store/handlers_store_op.h"

namespace kolmo
{

namespace
{

const char select_to_run_sql[] =
    "SELECT executable, context, name FROM handlers WHERE queue=? AND type=? AND "
    "enabled=? AND address=? ORDER BY priority DESC";

/* The address that is looked up for a filter, or null, logged, when a global one cannot have it. */
const char *filter_address(const HandlerRecord *filter)
{
    if (filter->type != HANDLER_TYPE_GLOBAL)
        return filter->address;
    if (filter->address == nullptr)
        return address_all;
    if (is_global_address(filter->address))
        return filter->address;
    /* Deliberately stricter than the insert: whoever asks with an empty address has a mistake to find. */
    log_message(LOG_ERR, "Incorrect recipient address for global handler `%s', expected [NULL|%s|%s]",
                filter->address, address_all, address_all_recipients);
    return nullptr;
}

int select_to_run(StoreOp &op, HandlerList *list, const HandlerRecord &wanted)
{
    const std::array key = {
        bind_int(wanted.queue, "Unable to bind parameter 'queue' to the 'SELECT' query: %s"),
        bind_int(wanted.type, "Unable to bind parameter 'type' to the 'SELECT' query: %s"),
        bind_int(wanted.enabled, "Unable to bind parameter 'enabled' to the 'SELECT' query: %s"),
        bind_text(wanted.address, "Unable to bind parameter 'address' to the 'SELECT' query: %s"),
    };
    int step;

    if (op.select(select_to_run_sql, key, &step, [&](sqlite3_stmt *row) {
            HandlerRecord record = wanted;

            record.executable = column_text(row, 0);
            record.context = column_text(row, 1);
            record.name = column_text(row, 2);
            return keep_row(list, &record);
        }) != 0)
        return -1;
    if (step == SQLITE_DONE)
        return 0;
    log_failure("Unable to get data from mail handlers database: %s", op.detail());
    return -1;
}

} // namespace

int handlers_db_select_to_run(StoreConnection *connection, HandlerList *list, const HandlerRecord *filter)
{
    const char *const address = filter_address(filter);
    char key[address_key_size];
    HandlerRecord wanted;

    if (filter->type == HANDLER_TYPE_GLOBAL && address == nullptr)
        return -1;
    (void)std::snprintf(key, sizeof key, "%s", address != nullptr ? address : "");
    handler_record_init(&wanted);
    wanted.type = filter->type;
    wanted.queue = filter->queue;
    wanted.enabled = filter->enabled;
    wanted.address = key;
    return with_handlers_store(connection, OpenMode::read_only,
                               [&](StoreOp &op) { return select_to_run(op, list, wanted); });
}

int handlers_db_select_by_address(StoreConnection *connection, HandlerList *list, const char *address,
                                  bool exact)
{
    return with_handlers_store(connection, OpenMode::read_only,
                               [&](StoreOp &op) { return select_by_address(op, list, address, exact); });
}

int handlers_db_select_by_domain(StoreConnection *connection, HandlerList *list, const char *address)
{
    return handlers_db_select_by_address(connection, list, address, false);
}

} // namespace kolmo
