/*
 * handlers_store_op: what only the handlers store's operations share.
 */
#ifndef KOLMO_HANDLERS_STORE_HANDLERS_STORE_OP_H
#define KOLMO_HANDLERS_STORE_HANDLERS_STORE_OP_H

#include <cstddef>
#include <span>
#include <utility>

#include "handlers_store/handlers_db.h"
#include "handlers_store/owned_handler_list.h"
#include "responder_store/store_op.h"

namespace kolmo
{

/* The addresses of a handler that applies to no single recipient, compared exactly. */
constexpr char address_all[] = "all";
constexpr char address_all_recipients[] = "all-recipients";

/* Whether `address` is one of the two words. */
[[nodiscard]] bool is_global_address(const char *address);

/* Room for an address key; the last byte is the terminator's. */
constexpr std::size_t address_key_size = 502;

/* with_store for the handlers store, wherever handlers_db_path leads at this moment. */
template <typename Body>
[[nodiscard]] int with_handlers_store(StoreConnection *connection, OpenMode mode, Body &&body)
{
    return with_store(connection, handlers_db_path, mode, std::forward<Body>(body));
}

/*
 * Runs one statement that writes.  0, or -1 after `refused` was logged with the detail for a step that did
 * not succeed, which leaves the connection open, or after what StoreOp::run reported.
 */
[[nodiscard]] int execute_write(StoreOp &op, const char *sql, std::span<const Bind> binds,
                                Message<1> refused);

/* handlers_db_run_actions on the connection of an operation that has one. */
[[nodiscard]] int run_actions(StoreOp &op, const HandlerList *list, HandlerAction action);

/* handlers_db_select_by_address on the connection of an operation that has one. */
[[nodiscard]] int select_by_address(StoreOp &op, HandlerList *list, const char *address, bool exact);

/* A column's text, borrowed until the next step; null for SQL NULL. */
[[nodiscard]] inline const char *column_text(sqlite3_stmt *row, int column)
{
    return reinterpret_cast<const char *>(sqlite3_column_text(row, column));
}

/*
 * The record of a row whose first columns are priority, type, queue and name, and whose columns `executable`
 * and the one after it are executable and context; its texts are borrowed until the next step.  What each
 * select means by its address and its enabled column it sets itself.
 */
[[nodiscard]] HandlerRecord record_from_row(sqlite3_stmt *row, int executable);

/* Appends a copy of a row that was read, or logs that it could not be kept and returns -1. */
[[nodiscard]] int keep_row(HandlerList *list, const HandlerRecord *record);

} // namespace kolmo

#endif
