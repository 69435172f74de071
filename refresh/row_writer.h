/*
 * row_writer: writes the rows that a comparison found from one attached database to another.
 */
#pragma once

#include <string>
#include <vector>

#include "refresh/row_difference.h"

namespace kolmo
{

/*
 * Brings a table of `live` to what `staged`, a database of the same connection, has in the rows that differ.
 * Inside the caller's transaction, in which nobody else can write.
 *
 * Returns 0, or -1: sqlite3_errmsg says why, and the caller rolls back.
 */
[[nodiscard]] int write_rows(sqlite3 *db, ChangedTable table, const char *live, const char *staged,
                             const std::vector<RowChange> &rows);

} // namespace kolmo
