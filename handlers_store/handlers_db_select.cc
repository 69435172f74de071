#include "handlers_store/handlers_db.h"

#include <array>
#include <cstdio>
#include <cstring>

#include "common/log.h"
#include "handlers_store/global_address.h"
#include "handlers_store/handler_rows.h"
#include "handlers_store/handlers_store_op.h"

namespace kolmo
{

namespace
{

constexpr Sql<4> select_to_run_sql =
    "SELECT executable, context, name FROM handlers WHERE queue=? AND type=? AND "
    "enabled=? AND address=? ORDER BY priority DESC";

constexpr Sql<1> select_address_sql = "SELECT priority, type, queue, name, address, executable, context, "
                                      "enabled FROM handlers WHERE address = ?";

constexpr Sql<1> select_domain_sql =
    "SELECT priority, type, queue, name, address, executable, context, enabled FROM handlers "
    "WHERE address LIKE '%' || ? || '%'";

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

Ending select_to_run(StoreOp &op, HandlerList *list, const HandlerRecord &wanted)
{
    const std::array key = {
        bind_int(wanted.queue, "Unable to bind parameter 'queue' to the 'SELECT' query: %s"),
        bind_int(wanted.type, "Unable to bind parameter 'type' to the 'SELECT' query: %s"),
        bind_int(wanted.enabled, "Unable to bind parameter 'enabled' to the 'SELECT' query: %s"),
        bind_text(wanted.address, "Unable to bind parameter 'address' to the 'SELECT' query: %s"),
    };
    Rows rows(op, select_to_run_sql, key);

    while (rows.next()) {
        HandlerRecord record = wanted;

        record.executable = rows.text(0);
        record.context = rows.text(1);
        record.name = rows.text(2);
        if (keep_row(list, &record) != 0)
            break; /* reported again below: the rows have not come to their end */
    }
    return rows.finish("Unable to get data from mail handlers database: %s");
}

} // namespace

Ending select_by_address(StoreOp &op, HandlerList *list, const char *address, bool exact)
{
    const char *const wanted = exact ? address : domain_part(address);
    const std::array key = {
        bind_text(wanted, "Unable to bind parameter 'address' to the 'SELECT' query: %s")};
    Rows rows(op, exact ? select_address_sql : select_domain_sql, key);
    bool all_kept = true;

    /* LIKE is wider than a domain, so a row's own domain decides; in the exact form, too, which for that
       reason never finds a mailbox. */
    while (rows.next()) {
        HandlerRecord record = record_from_row(rows, 5);

        record.address = rows.text(4);
        record.enabled = rows.integer(7) != 0;
        if (record.address != nullptr && std::strcmp(domain_part(record.address), wanted) == 0 &&
            keep_row(list, &record) != 0)
            all_kept = false;
    }

    const Ending ending = rows.finish("Unable to select data from handlers database: %s");

    return ending == Ending::done && !all_kept ? Ending::failed : ending;
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
    return to_result(with_handlers_store(connection, OpenMode::read_only,
                                         [&](StoreOp &op) { return select_to_run(op, list, wanted); }));
}

int handlers_db_select_by_address(StoreConnection *connection, HandlerList *list, const char *address,
                                  bool exact)
{
    return to_result(with_handlers_store(connection, OpenMode::read_only, [&](StoreOp &op) {
        return select_by_address(op, list, address, exact);
    }));
}

int handlers_db_select_by_domain(StoreConnection *connection, HandlerList *list, const char *address)
{
    return handlers_db_select_by_address(connection, list, address, false);
}

} // namespace kolmo
