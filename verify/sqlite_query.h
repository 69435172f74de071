/*
 * sqlite_query: owners of a connection and of a prepared statement, for reading.
 */
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <sqlite3.h>

#include "common/owned.h"

namespace kolmo
{

using SqliteConnection = std::unique_ptr<sqlite3, Release<sqlite3_close_v2>>;

/*
 * A statement that is prepared once and asked as often as one likes.
 *
 *     query.ask(address);
 *     while (query.next())
 *         ... query.text(0) ...
 */
class SqliteQuery
{
public:
    /* Returns 0, or -1: sqlite3_errmsg of the connection says why. */
    [[nodiscard]] int prepare(sqlite3 *db, const char *sql);

    /* Starts anew; with what stands for the placeholders, a text must live until the last next().  One that
       cannot be bound fails the query. */
    void ask();
    void ask(std::string_view text);
    void ask(std::int64_t number);
    void ask(std::int64_t first, std::int64_t second);

    /* The next row; false at the end and after a failure. */
    [[nodiscard]] bool next();
    [[nodiscard]] bool failed() const { return step_ != SQLITE_ROW && step_ != SQLITE_DONE; }

    /* Columns of the row, good until the next call of next or ask. */
    [[nodiscard]] std::optional<std::string_view> text(int column) const; /* nothing for NULL */
    [[nodiscard]] std::int64_t number(int column) const;                  /* 0 for NULL */
    [[nodiscard]] std::string_view bytes(int column) const; /* of a text or a blob, as they are stored */

    /* The columns from `first` on as one text: the same for the same values of the same types, and for no
       others. */
    [[nodiscard]] std::string values(int first = 0) const;

private:
    void bind(int rc);
    void append_value(int column, std::string *values) const;

    std::unique_ptr<sqlite3_stmt, Release<sqlite3_finalize>> statement_;
    int bound_ = SQLITE_OK;
    int step_ = SQLITE_DONE;
};

} // namespace kolmo
