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
}

void SqliteQuery::ask(std::string_view text)
{
    ask();
    (void)sqlite3_bind_text(statement_.get(), 1, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

bool SqliteQuery::next()
{
    step_ = sqlite3_step(statement_.get());
    if (step_ != SQLITE_ROW)
        (void)sqlite3_reset(statement_.get());
    return step_ == SQLITE_ROW;
}

std::optional<std::string_view> SqliteQuery::text(int column) const
{
    const auto *const bytes = sqlite3_column_text(statement_.get(), column);

    if (bytes == nullptr)
        return std::nullopt;
    return std::string_view(reinterpret_cast<const char *>(bytes),
                            static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column)));
}

std::int64_t SqliteQuery::number(int column) const
{
    return sqlite3_column_int64(statement_.get(), column);
}

std::optional<std::int64_t> SqliteQuery::optional_number(int column) const
{
    if (sqlite3_column_type(statement_.get(), column) == SQLITE_NULL)
        return std::nullopt;
    return number(column);
}

} // namespace kolmo
