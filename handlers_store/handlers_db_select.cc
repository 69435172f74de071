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

const char select_address_sql[] = "SELECT priority, type, queue, name, address, executable, context, enabled "
                                  "FROM handlers WHERE address = ?";

const char select_domain_sql[] = "SELECT priority, type, queue, name, address, executable, context, enabled "
                                 "FROM handlers WHERE address LIKE '%' || ? || '%'";

/* The domain of a mailbox's address; any other text is its own. */
const char *domain_part(const char *address)
{
    const char *const at = std::strchr(address, '@');

    return at != nullptr ? at + 1 : address;
}

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

HandlerRecord record_from_row(sqlite3_stmt *row, int executable)
{
    HandlerRecord record;

    handler_record_init(&record);
    record.priority = sqlite3_column_int(row, 0);
    record.type = sqlite3_column_int(row, 1);
    record.queue = sqlite3_column_int(row, 2);
    record.name = column_text(row, 3);
    record.executable = column_text(row, executable);
    record.context = column_text(row, executable + 1);
    return record;
}

int keep_row(HandlerList *list, const HandlerRecord *record)
{
    if (handler_list_append(list, record) == 0)
        return 0;
    log_message(LOG_ERR, "Unable to save the data from SELECT query");
    return -1;
}

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

int select_by_address(StoreOp &op, HandlerList *list, const char *address, bool exact)
{
    const char *const wanted = exact ? address : domain_part(address);
    const std::array key = {
        bind_text(wanted, "Unable to bind parameter 'address' to the 'SELECT' query: %s")};
    int result = 0;
    int step;

    /* LIKE is wider than a domain, so a row's own domain decides; in the exact form, too, which for that
       reason never finds a mailbox. */
    if (op.select(exact ? select_address_sql : select_domain_sql, key, &step, [&](sqlite3_stmt *row) {
            HandlerRecord record = record_from_row(row, 5);

            record.address = column_text(row, 4);
            record.enabled = sqlite3_column_int(row, 7) != 0;
            if (record.address != nullptr && std::strcmp(domain_part(record.address), wanted) == 0 &&
                keep_row(list, &record) != 0)
                result = -1;
            return 0;
        }) != 0)
        return -1;
    if (step == SQLITE_DONE)
        return result;
    log_failure("Unable to select data from handlers database: %s", op.detail());
    return -1;
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
