/*
 * handlers_store_op: operations on the handlers store, within one that has a connection already.
 */
#pragma once

#include <utility>

#include "handlers_store/handlers_db.h"
#include "handlers_store/owned_handler_list.h"
#include "responder_store/kit/store_op.h"

namespace kolmo
{

/* with_store for the handlers store, wherever handlers_db_path leads at this moment. */
template <typename Body>
[[nodiscard]] Ending with_handlers_store(StoreConnection *connection, OpenMode mode, Body &&body)
{
    return with_store(connection, handlers_db_path, mode, std::forward<Body>(body));
}

/*
 * One statement that writes.  The operation's ending; failed, with `refused` (detail) logged and the
 * connection left open, when the store did not take it.
 */
template <std::size_t Parameters>
[[nodiscard]] Ending execute_write(StoreOp &op, Sql<Parameters> sql,
                                   const std::array<Bind, Parameters> &binds, TextFormat<1> refused)
{
    if (op.run(sql, binds))
        return op.ending();
    log_failure(refused, op.detail());
    return Ending::failed;
}

/* handlers_db_run_actions. */
[[nodiscard]] Ending run_actions(StoreOp &op, const HandlerList *list, HandlerAction action);

/* handlers_db_select_by_address. */
[[nodiscard]] Ending select_by_address(StoreOp &op, HandlerList *list, const char *address, bool exact);

} // namespace kolmo
