/*
 * row_difference: which rows of a table differ between a live store and the staged one.
 *
 * Tables are compared as what they are without any key: each row counts, with the type of every value and
 * as often as it is there.  The key only tells a row that changed from one that went and another that came.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "refresh/change.h"
#include "verify/sqlite_query.h"
#include "verify/store_copy.h"

namespace kolmo
{

/* One side of a comparison: a database of a connection; null stands for one without rows. */
struct RowSource {
    sqlite3 *db = nullptr;
    const char *schema = "main";
};

/* The rowids of a row that differs; which of them means something is the kind's affair.  In a table without
   rowids both are 0. */
struct RowChange {
    ChangeKind kind = ChangeKind::added;
    std::int64_t live_row = 0;
    std::int64_t staged_row = 0;
};

/* A row's key, column by column, as text; NULL is empty.  Of handlers: address, name, queue, type. */
using RowKey = std::vector<std::string>;

/* The columns that a key is made of. */
[[nodiscard]] const std::vector<const char *> &key_columns(ChangedTable table);

/* The table's columns that can be written, quoted and separated by commas; empty when there is no such table,
   nothing when it cannot be told: sqlite3_errmsg says why. */
[[nodiscard]] std::optional<std::string> columns_of(const RowSource &source, ChangedTable table);

/* Whether the table's rows have numbers: a table WITHOUT ROWID can be compared, but not written row by row.
   Nothing when it cannot be told. */
[[nodiscard]] std::optional<bool> has_rowids(const RowSource &source, ChangedTable table);

/* Reads rows of a table by their rowids, as SqliteQuery::values gives them. */
class RowReader
{
public:
    /* Returns 0, or -1: sqlite3_errmsg says why. */
    [[nodiscard]] int open(const RowSource &source, ChangedTable table, const std::string &columns);

    /* Nothing when there is no such row, or it cannot be read: then failed. */
    [[nodiscard]] std::optional<std::string> read(std::int64_t row);
    [[nodiscard]] bool failed() const { return rows_.failed(); }

private:
    SqliteQuery rows_;
};

/*
 * Compares a table, in the order of keys.
 *
 * live, staged  must not change meanwhile; a live table of other columns counts as one without rows
 * unwanted      keys whose rows of the staged store count as gone
 * body          hears of each row that differs
 * trouble       hears why a table cannot be compared
 * Returns 0 or -1.
 */
[[nodiscard]] int compare_table(ChangedTable table, const RowSource &live, const RowSource &staged,
                                const std::set<RowKey> &unwanted,
                                const std::function<void(const std::string &key, const RowChange &)> &body,
                                const TroubleSink &trouble);

} // namespace kolmo
