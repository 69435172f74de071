#include "refresh/row_writer.h"

namespace kolmo
{

namespace
{

/* The statements that write a table's rows; each execution writes exactly one. */
class RowWriter
{
public:
    [[nodiscard]] int open(sqlite3 *db, ChangedTable table, const std::string &live,
                           const std::string &staged);

    [[nodiscard]] int remove(std::int64_t live_row);
    [[nodiscard]] int add(std::int64_t staged_row);

    /* A row that another one stands in the way of, by a unique column, is removed: add() it later. */
    [[nodiscard]] int change(const RowChange &row, bool *is_in_the_way);

private:
    [[nodiscard]] int wrote_one(SqliteQuery *query);

    sqlite3 *db_ = nullptr;
    SqliteQuery remove_;
    SqliteQuery change_;
    SqliteQuery add_;
};

int RowWriter::open(sqlite3 *db, ChangedTable table, const std::string &live, const std::string &staged)
{
    const std::optional<std::string> columns = columns_of({db, staged.c_str()}, table);

    db_ = db;
    if (!columns)
        return -1;

    const std::string target = live + '.' + table_name(table);
    const std::string row =
        "SELECT " + *columns + " FROM " + staged + '.' + table_name(table) + " WHERE rowid = ";
    const std::string remove = "DELETE FROM " + target + " WHERE rowid = ?1";
    const std::string change =
        "UPDATE " + target + " SET (" + *columns + ") = (" + row + "?2) WHERE rowid = ?1";
    const std::string add = "INSERT INTO " + target + " (" + *columns + ") " + row + "?1";

    if (remove_.prepare(db, remove.c_str()) != 0 || change_.prepare(db, change.c_str()) != 0)
        return -1;
    return add_.prepare(db, add.c_str());
}

int RowWriter::wrote_one(SqliteQuery *query)
{
    (void)query->next();
    return !query->failed() && sqlite3_changes(db_) == 1 ? 0 : -1;
}

int RowWriter::remove(std::int64_t live_row)
{
    remove_.ask(live_row);
    return wrote_one(&remove_);
}

int RowWriter::add(std::int64_t staged_row)
{
    add_.ask(staged_row);
    return wrote_one(&add_);
}

int RowWriter::change(const RowChange &row, bool *is_in_the_way)
{
    change_.ask(row.live_row, row.staged_row);
    if (wrote_one(&change_) == 0)
        return 0;
    *is_in_the_way = change_.failed() && (sqlite3_errcode(db_) & 0xff) == SQLITE_CONSTRAINT;
    return *is_in_the_way ? remove(row.live_row) : -1;
}

} // namespace

/* What goes makes room for what comes. */
int write_rows(sqlite3 *db, ChangedTable table, const char *live, const char *staged,
               const std::vector<RowChange> &rows)
{
    RowWriter writer;
    std::vector<std::int64_t> come;

    if (rows.empty())
        return 0;
    if (writer.open(db, table, live, staged) != 0)
        return -1;
    for (const RowChange &row : rows)
        if (row.kind == ChangeKind::removed && writer.remove(row.live_row) != 0)
            return -1;
    for (const RowChange &row : rows) {
        bool is_in_the_way = false;

        if (row.kind == ChangeKind::changed && writer.change(row, &is_in_the_way) != 0)
            return -1;
        if (row.kind == ChangeKind::added || is_in_the_way)
            come.push_back(row.staged_row);
    }
    for (const std::int64_t row : come)
        if (writer.add(row) != 0)
            return -1;
    return 0;
}

} // namespace kolmo
