/*
 * row_recheck: whether rows that are about to be written are still as they were when they were compared.
 */
#pragma once

#include <vector>

#include "refresh/row_difference.h"

namespace kolmo
{

enum class Recheck {
    same,
    changed,
    failed /* sqlite3_errmsg says why */
};

/*
 * Looks at the rows of a table in `live` that are to be changed or removed: whether they are those of
 * `before`; and whether there are as many rows as there were of the key of each that is to be added.
 *
 * live, before, staged  databases of the connection
 */
[[nodiscard]] Recheck recheck_rows(sqlite3 *db, ChangedTable table, const char *live, const char *before,
                                   const char *staged, const std::vector<RowChange> &rows);

} // namespace kolmo
