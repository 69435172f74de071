#include "handlers_store/handlers_db.h"

#include <array>

#include "common/log.h"
#include "handlers_store/handlers_store_op.h"

namespace kolmo
{

int handlers_db_exec_with_param(StoreConnection *connection, const char *sql, const char *parameter)
{
    const std::array binds = {bind_text(parameter, "Unable to bind parameter param to query: %s")};

    return with_handlers_store(connection, OpenMode::read_write, [&](StoreOp &op) {
        return execute_write(op, sql, binds, "Unable to execute do action on handlers database: %s");
    });
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
    const PauseWatch pauses;
    OwnedHandlerList list;
    int read = -1;

    /* The read and the deletes never share a connection of our own: that of the read is read-only. */
    if (with_handlers_store(connection, OpenMode::read_only,
                            [&](StoreOp &op) {
                                read = select_by_address(op, list.get(), domain, false);
                                return 0;
                            }) != 0 ||
        pauses.failed())
        return -1;
    if (read != 0) {
        log_message(LOG_ERR, "Get handlers list");
        return -1;
    }
    if (handlers_db_run_actions(list.get(), connection, handlers_db_delete_action) == 0)
        return 0;
    /* The copy's message, reused: for whoever reads the log the batch is what failed. */
    if (!pauses.failed())
        log_message(LOG_ERR, "Unable to add records into handlers database");
    return -1;
}

} // namespace kolmo
