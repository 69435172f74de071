#include "refresh/row_recheck.h"

namespace kolmo
{

namespace
{

std::string count_sql(ChangedTable table, const char *schema)
{
    std::string sql = std::string("(SELECT count(*) FROM ") + schema + '.' + table_name(table) + " r WHERE ";
    const char *separator = "";

    for (const char *const column : key_columns(table)) {
        sql += std::string(separator) + "r." + column + " IS s." + column;
        separator = " AND ";
    }
    return sql + ')';
}

class RowRecheck
{
public:
    [[nodiscard]] int open(sqlite3 *db, ChangedTable table, const char *live, const char *before,
                           const char *staged);

    [[nodiscard]] bool is_same(const RowChange &row);
    [[nodiscard]] bool failed() const
    {
        return live_.failed() || before_.failed() || counts_are_equal_.failed();
    }

private:
    RowReader live_;
    RowReader before_;
    SqliteQuery counts_are_equal_;
};

int RowRecheck::open(sqlite3 *db, ChangedTable table, const char *live, const char *before,
                     const char *staged)
{
    const std::optional<std::string> columns = columns_of({db, before}, table);
    const std::string counts = "SELECT " + count_sql(table, live) + " = " + count_sql(table, before) +
                               " FROM " + staged + '.' + table_name(table) + " s WHERE s.rowid = ?1";

    if (!columns || live_.open({db, live}, table, *columns) != 0 ||
        before_.open({db, before}, table, *columns) != 0)
        return -1;
    return counts_are_equal_.prepare(db, counts.c_str());
}

bool RowRecheck::is_same(const RowChange &row)
{
    if (row.kind != ChangeKind::added) {
        const std::optional<std::string> now = live_.read(row.live_row);

        return now && now == before_.read(row.live_row);
    }
    counts_are_equal_.ask(row.staged_row);
    return counts_are_equal_.next() && counts_are_equal_.number(0) == 1;
}

} // namespace

Recheck recheck_rows(sqlite3 *db, ChangedTable table, const char *live, const char *before,
                     const char *staged, const std::vector<RowChange> &rows)
{
    RowRecheck recheck;

    if (rows.empty())
        return Recheck::same;
    if (recheck.open(db, table, live, before, staged) != 0)
        return Recheck::failed;
    for (const RowChange &row : rows)
        if (!recheck.is_same(row))
            return recheck.failed() ? Recheck::failed : Recheck::changed;
    return Recheck::same;
}

} // namespace kolmo
