#include "verify/sqlite_query.h"

namespace kolmo
{

int SqliteQuery::prepare(sqlite3 *db, const char *sql)
{
    sqlite3_stmt *statement = nullptr;
    const int rc = sqlite3_prepare_v2(db, sql, -1, &statement, nullptr);

    statement_.reset(statement);
    return rc == SQLITE_OK ? 0 : -1;
}

void SqliteQuery::ask()
{
    (void)sqlite3_reset(statement_.get());
    bound_ = SQLITE_OK;
}

void SqliteQuery::bind(int rc)
{
    if (bound_ == SQLITE_OK)
        bound_ = rc;
}

void SqliteQuery::ask(std::string_view text)
{
    ask();
    bind(sqlite3_bind_text(statement_.get(), 1, text.data(), static_cast<int>(text.size()), SQLITE_STATIC));
}

void SqliteQuery::ask(std::int64_t number)
{
    ask();
    bind(sqlite3_bind_int64(statement_.get(), 1, number));
}

void SqliteQuery::ask(std::int64_t first, std::int64_t second)
{
    ask(first);
    bind(sqlite3_bind_int64(statement_.get(), 2, second));
}

bool SqliteQuery::next()
{
    step_ = bound_ == SQLITE_OK ? sqlite3_step(statement_.get()) : bound_;
    if (step_ != SQLITE_ROW)
        (void)sqlite3_reset(statement_.get());
    return step_ == SQLITE_ROW;
}

std::optional<std::string_view> SqliteQuery::text(int column) const
{
    const auto *const characters = sqlite3_column_text(statement_.get(), column);

    if (characters == nullptr)
        return std::nullopt;
    return std::string_view(reinterpret_cast<const char *>(characters),
                            static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column)));
}

std::int64_t SqliteQuery::number(int column) const
{
    return sqlite3_column_int64(statement_.get(), column);
}

std::string_view SqliteQuery::bytes(int column) const
{
    const void *const stored = sqlite3_column_blob(statement_.get(), column);

    if (stored == nullptr)
        return {};
    return {static_cast<const char *>(stored),
            static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column))};
}

void SqliteQuery::append_value(int column, std::string *values) const
{
    const int type = sqlite3_column_type(statement_.get(), column);

    *values += static_cast<char>('0' + type);
    if (type == SQLITE_INTEGER) {
        *values += std::to_string(number(column));
    } else if (type == SQLITE_FLOAT) {
        const double real = sqlite3_column_double(statement_.get(), column);

        values->append(reinterpret_cast<const char *>(&real), sizeof real);
    } else if (type != SQLITE_NULL) {
        const std::string_view stored = bytes(column);

        *values += std::to_string(stored.size());
        *values += ':';
        *values += stored;
    }
    *values += ',';
}

std::string SqliteQuery::values(int first) const
{
    const int columns = sqlite3_column_count(statement_.get());
    std::string values;

    for (int column = first; column < columns; column++)
        append_value(column, &values);
    return values;
}

} // namespace kolmo
