/*
 * store_rows: the rows of both stores, looked up by address in their private copies; what nobody asked for is
 * what the stores have too much.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "verify/row_set.h"
#include "verify/sqlite_query.h"

namespace kolmo
{

/* One table of a copy: asked by its key column, told what was left over. */
class KeyedTable
{
public:
    /*
     * Gets ready, with an index of the copy's own where the table has none for its key.
     *
     * columns  what next() selects behind the row's number and the key, separated by commas
     * left     the same for each_left; null for nothing
     * filter   a condition that all rows must meet; null for none
     * Returns 0, or -1 when the table or a column is not there: sqlite3_errmsg says which.
     */
    [[nodiscard]] int open(sqlite3 *db, const char *table, const char *key, const char *columns,
                           const char *left, const char *filter);

    /* The next row with exactly this key, in no order. */
    void ask(std::string_view key);
    [[nodiscard]] bool next();

    /* Whether next() or each_left() has ended before the rows did. */
    [[nodiscard]] bool failed() const { return rows_.failed() || all_.failed(); }

    /* The columns of the row, counted from 0 behind the key. */
    [[nodiscard]] std::optional<std::string_view> text(int column) const { return rows_.text(column + 2); }

    /* The row that next() found was expected. */
    void keep() { kept_.add(rows_.number(0)); }
    [[nodiscard]] bool is_kept(std::int64_t row) const { return kept_.has(row); }

    /* Calls body with the key and the row (columns from 2) of each row that was not kept, in the order of
       the keys. */
    void each_left(const std::function<void(std::string_view key, const SqliteQuery &row)> &body);

    [[nodiscard]] bool is_empty() const { return empty_; }

private:
    SqliteQuery rows_;
    SqliteQuery all_;
    RowSet kept_;
    std::string key_;
    bool empty_ = false;
};

} // namespace kolmo
