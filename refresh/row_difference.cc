#include "refresh/row_difference.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace kolmo
{

namespace
{

/* So many of the key's columns are what people call the row by. */
std::size_t shown_columns(ChangedTable table)
{
    return table == ChangedTable::attachments ? 2 : 1;
}

std::string qualified(const RowSource &source, ChangedTable table)
{
    return std::string(source.schema) + '.' + table_name(table);
}

struct Row {
    std::int64_t number = 0;
    std::string values;
};

bool by_values(const Row &one, const Row &other)
{
    return one.values < other.values;
}

/* The rows of a table, those of one key at a time. */
class KeyGroups
{
public:
    [[nodiscard]] int open(const RowSource &source, ChangedTable table, const std::string &columns);

    /* The next group; false at the end and after a failure. */
    [[nodiscard]] bool next();
    [[nodiscard]] bool failed() const { return failed_; }

    [[nodiscard]] const RowKey &key() const { return key_; }
    [[nodiscard]] std::vector<Row> take_rows() { return std::move(rows_); }

private:
    [[nodiscard]] RowKey key_here() const;
    void step();
    [[nodiscard]] bool add_row();

    SqliteQuery order_; /* rowids and keys in their order: small, so that it can be sorted */
    RowReader values_;
    bool has_rowids_ = true; /* otherwise the order has the values, too */
    std::size_t key_columns_ = 0;
    bool is_at_row_ = false;
    bool failed_ = false;
    RowKey key_;
    std::vector<Row> rows_;
};

/* Keys are compared byte by byte, whatever the column itself thinks is alike; and an index that has lost a
   row must not hide it. */
int KeyGroups::open(const RowSource &source, ChangedTable table, const std::string &columns)
{
    if (source.db == nullptr)
        return 0;

    const std::optional<bool> numbered = has_rowids(source, table);

    if (!numbered)
        return -1;
    has_rowids_ = *numbered;

    std::string select = has_rowids_ ? "SELECT rowid" : "SELECT 0";
    std::string order = " NOT INDEXED ORDER BY ";

    for (const char *const column : key_columns(table)) {
        select += std::string(", ifnull(CAST(") + column + " AS BLOB), x'')";
        order += std::to_string(++key_columns_ + 1) + ", ";
    }
    select += (has_rowids_ ? "" : ", " + columns) + " FROM " + qualified(source, table) + order + '1';
    if (order_.prepare(source.db, select.c_str()) != 0 ||
        (has_rowids_ && values_.open(source, table, columns) != 0))
        return -1;
    order_.ask();
    step();
    return failed_ ? -1 : 0;
}

void KeyGroups::step()
{
    is_at_row_ = order_.next();
    failed_ = failed_ || order_.failed();
}

RowKey KeyGroups::key_here() const
{
    RowKey key;

    for (std::size_t column = 1; column <= key_columns_; column++)
        key.emplace_back(order_.bytes(static_cast<int>(column)));
    return key;
}

bool KeyGroups::add_row()
{
    const std::int64_t number = order_.number(0);
    std::optional<std::string> values =
        has_rowids_ ? values_.read(number) : order_.values(static_cast<int>(key_columns_) + 1);

    failed_ = failed_ || !values;
    if (values)
        rows_.push_back({number, std::move(*values)});
    return !failed_;
}

bool KeyGroups::next()
{
    rows_.clear();
    if (!is_at_row_)
        return false;
    key_ = key_here();
    while (is_at_row_ && key_here() == key_ && add_row())
        step();
    return !failed_;
}

/* What is in the first more often than in the second. */
std::vector<Row> surplus(const std::vector<Row> &rows, const std::vector<Row> &others)
{
    std::vector<Row> left;

    std::set_difference(rows.begin(), rows.end(), others.begin(), others.end(), std::back_inserter(left),
                        by_values);
    return left;
}

std::string shown_key(ChangedTable table, const RowKey &key)
{
    std::string shown = key[0];

    for (std::size_t column = 1; column < shown_columns(table); column++)
        shown += ' ' + key[column];
    return shown;
}

using RowBody = std::function<void(const std::string &key, const RowChange &)>;

/* Among rows of one key one that went and one that came are one that changed. */
void tell_group(const std::string &key, std::vector<Row> live, std::vector<Row> staged, const RowBody &body)
{
    std::sort(live.begin(), live.end(), by_values);
    std::sort(staged.begin(), staged.end(), by_values);

    const std::vector<Row> gone = surplus(live, staged);
    const std::vector<Row> come = surplus(staged, live);
    const std::size_t changed = std::min(gone.size(), come.size());

    for (std::size_t row = 0; row < changed; row++)
        body(key, {ChangeKind::changed, gone[row].number, come[row].number});
    for (std::size_t row = changed; row < gone.size(); row++)
        body(key, {ChangeKind::removed, gone[row].number, 0});
    for (std::size_t row = changed; row < come.size(); row++)
        body(key, {ChangeKind::added, 0, come[row].number});
}

/* Walks both sides, key by key. */
void walk_keys(ChangedTable table, KeyGroups *live, KeyGroups *staged, const std::set<RowKey> &unwanted,
               const RowBody &body)
{
    bool has_live = live->next();
    bool has_staged = staged->next();

    while (has_live || has_staged) {
        const bool live_is_first = !has_staged || (has_live && live->key() <= staged->key());
        const bool staged_is_first = !has_live || (has_staged && staged->key() <= live->key());
        const RowKey key = live_is_first ? live->key() : staged->key();
        std::vector<Row> live_rows;
        std::vector<Row> staged_rows;

        if (live_is_first) {
            live_rows = live->take_rows();
            has_live = live->next();
        }
        if (staged_is_first) {
            staged_rows = staged->take_rows();
            has_staged = staged->next();
        }
        if (live->failed() || staged->failed())
            return;
        if (unwanted.count(key) != 0)
            staged_rows.clear();
        tell_group(shown_key(table, key), std::move(live_rows), std::move(staged_rows), body);
    }
}

int tell_failure(ChangedTable table, const RowSource &source, const char *side, const TroubleSink &trouble)
{
    trouble(std::string("table ") + table_name(table) + side + store_name(table) +
            " store cannot be compared: " + sqlite3_errmsg(source.db));
    return -1;
}

} // namespace

const std::vector<const char *> &key_columns(ChangedTable table)
{
    static const std::array<std::vector<const char *>, changed_tables> keys = {{
        {"mn"},
        {"mn", "filename"},
        {"name"},
        {"address", "name", "queue", "type"},
    }};

    return keys[static_cast<std::size_t>(table)];
}

std::optional<std::string> columns_of(const RowSource &source, ChangedTable table)
{
    const std::string sql =
        std::string("SELECT group_concat('\"' || replace(name, '\"', '\"\"') || '\"', ', ') "
                    "FROM pragma_table_info('") +
        table_name(table) + "', '" + source.schema + "')";
    SqliteQuery names;

    if (names.prepare(source.db, sql.c_str()) != 0 || !names.next())
        return std::nullopt;
    return std::string(names.text(0).value_or(""));
}

std::optional<bool> has_rowids(const RowSource &source, ChangedTable table)
{
    const std::string sql = std::string("SELECT wr FROM pragma_table_list WHERE schema = '") + source.schema +
                            "' AND name = '" + table_name(table) + "'";
    SqliteQuery found;

    if (found.prepare(source.db, sql.c_str()) != 0)
        return std::nullopt;

    const bool is_without = found.next() && found.number(0) == 1;

    if (found.failed())
        return std::nullopt;
    return !is_without;
}

int RowReader::open(const RowSource &source, ChangedTable table, const std::string &columns)
{
    return rows_.prepare(
        source.db, ("SELECT " + columns + " FROM " + qualified(source, table) + " WHERE rowid = ?1").c_str());
}

std::optional<std::string> RowReader::read(std::int64_t row)
{
    rows_.ask(row);
    if (!rows_.next())
        return std::nullopt;
    return rows_.values();
}

int compare_table(ChangedTable table, const RowSource &live, const RowSource &staged,
                  const std::set<RowKey> &unwanted, const RowBody &body, const TroubleSink &trouble)
{
    const std::optional<std::string> columns = columns_of(staged, table);
    const std::optional<std::string> live_columns = live.db != nullptr ? columns_of(live, table) : "";
    const RowSource alike = live_columns == columns ? live : RowSource{};
    KeyGroups live_groups;
    KeyGroups staged_groups;

    if (!live_columns || (columns && live_groups.open(alike, table, *columns) != 0))
        return tell_failure(table, live, " of the live ", trouble);
    if (!columns || staged_groups.open(staged, table, *columns) != 0)
        return tell_failure(table, staged, " of the rebuilt ", trouble);
    walk_keys(table, &live_groups, &staged_groups, unwanted, body);
    if (live_groups.failed())
        return tell_failure(table, live, " of the live ", trouble);
    if (staged_groups.failed())
        return tell_failure(table, staged, " of the rebuilt ", trouble);
    return 0;
}

} // namespace kolmo
