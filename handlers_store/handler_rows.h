/*
 * handler_rows: the rows of a select on the handlers store, as records of a list.
 */
#pragma once

#include <cstddef>

#include "handlers_store/handler_record.h"
#include "responder_store/kit/store_op.h"

namespace kolmo
{

/* Room for an address key; the last byte is the terminator's. */
constexpr std::size_t address_key_size = 502;

/*
 * The record of a row whose first columns are priority, type, queue and name, and whose columns `executable`
 * and the one after it are executable and context; its texts are borrowed until the next row.  What each
 * select means by its address and its enabled column it sets itself.
 */
[[nodiscard]] HandlerRecord record_from_row(const Rows &row, int executable);

/* Appends a copy of a row that was read, or logs that it could not be kept and returns -1. */
[[nodiscard]] int keep_row(HandlerList *list, const HandlerRecord *record);

} // namespace kolmo
