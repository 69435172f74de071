#include "verify/store_rows.h"

namespace kolmo
{

namespace
{

/* A table without row numbers is made into one that has them: it is our own copy. */
int give_row_numbers(sqlite3 *db, const std::string &table)
{
    SqliteQuery probe;

    if (probe.prepare(db, ("SELECT rowid FROM " + table).c_str()) == 0)
        return 0;

    const std::string sql = "CREATE TABLE verify_" + table + " AS SELECT * FROM " + table + "; DROP TABLE " +
                            table + "; ALTER TABLE verify_" + table + " RENAME TO " + table;

    return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK ? 0 : -1;
}

int give_index(sqlite3 *db, const std::string &table, const std::string &key, const std::string &where)
{
    const std::string has_index = "SELECT 1 FROM pragma_index_list('" + table +
                                  "') l, pragma_index_info(l.name) i WHERE NOT l.partial AND i.seqno = 0 AND "
                                  "i.name = '" +
                                  key + "'";
    SqliteQuery probe;

    if (probe.prepare(db, has_index.c_str()) != 0)
        return -1;
    if (probe.next() || probe.failed())
        return probe.failed() ? -1 : 0;
    probe = {};

    const std::string sql =
        "CREATE INDEX verify_" + table + "_" + key + " ON " + table + "(" + key + ")" + where;

    return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK ? 0 : -1;
}

} // namespace

int KeyedTable::open(sqlite3 *db, const char *table, const char *key, const char *columns, const char *left,
                     const char *filter)
{
    const std::string select = std::string("SELECT rowid, ") + key;
    const std::string from = std::string(" FROM ") + table;
    const std::string where = filter != nullptr ? std::string(" WHERE ") + filter : "";
    const std::string and_key = (where.empty() ? " WHERE " : where + " AND ") + key + " = ?1";

    if (give_row_numbers(db, table) != 0 || give_index(db, table, key, where) != 0 ||
        rows_.prepare(db, (select + ", " + columns + from + and_key).c_str()) != 0 ||
        all_.prepare(db, (select + (left != nullptr ? std::string(", ") + left : "") + from + where +
                          " ORDER BY " + key)
                             .c_str()) != 0)
        return -1;
    all_.ask();
    empty_ = !all_.next();
    all_.ask();
    return failed() ? -1 : 0;
}

void KeyedTable::ask(std::string_view key)
{
    key_ = key;
    rows_.ask(key_);
}

/* The column may compare its values in a way of its own; the mail server's reader asks for the exact one. */
bool KeyedTable::next()
{
    while (rows_.next()) {
        if (rows_.text(1) == key_)
            return true;
    }
    return false;
}

void KeyedTable::each_left(const std::function<void(std::string_view, const SqliteQuery &)> &body)
{
    all_.ask();
    while (all_.next()) {
        if (!kept_.has(all_.number(0)))
            body(all_.text(1).value_or("NULL"), all_);
    }
}

} // namespace kolmo
