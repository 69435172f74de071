#include "handlers_store/handlers_store_op.h"

#include <array>
#include <cstring>

#include "common/log.h"

namespace kolmo
{

namespace
{

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

} // namespace

int execute_write(StoreOp &op, const char *sql, std::span<const Bind> binds, Message<1> refused)
{
    int step;

    if (op.run(sql, binds, &step) != 0)
        return -1;
    if (step == SQLITE_DONE)
        return 0;
    log_failure(refused, op.detail());
    return -1;
}

bool is_global_address(const char *address)
{
    return std::strcmp(address, address_all) == 0 || std::strcmp(address, address_all_recipients) == 0;
}

int run_actions(StoreOp &op, const HandlerList *list, HandlerAction action)
{
    const PauseWatch pauses;

    if (op.begin() != 0)
        return -1;
    for (const HandlerNode *node = list != nullptr ? list->head : nullptr; node != nullptr;
         node = node->next) {
        /* A record that fails is left out; the others are committed without it. */
        (void)action(op.connection(), node->record);
        if (!op.connection()->is_open() || pauses.failed())
            return -1; /* the transaction went with the connection, or has to stay as the pause left it */
    }
    return op.end();
}

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

} // namespace kolmo
