/*
 * panel_rows: the panel's database read as it was at one moment, row by row.
 */
#pragma once

#include <string>
#include <string_view>

#include "panel/panel_db.h"

namespace kolmo
{

/* A result that arrives row by row: no other query can be sent on the connection before its end. */
class PanelRows
{
public:
    /* Sends the query.  Returns 0, or -1: mysql_error says why. */
    [[nodiscard]] int ask(MYSQL *panel, const std::string &sql);

    /* The next row; false at the end and after a failure. */
    [[nodiscard]] bool next();
    [[nodiscard]] bool failed() const;

    /* A column of the row up to its first NUL, where it ends for a rebuild, too; good until the next row.
       NULL is the empty text. */
    [[nodiscard]] std::string_view text(unsigned int column) const;
    [[nodiscard]] bool is_null(unsigned int column) const { return row_[column] == nullptr; }
    [[nodiscard]] unsigned long number(unsigned int column) const; /* 0 for what is none */

private:
    MYSQL *panel_ = nullptr;
    PanelResult result_;
    MYSQL_ROW row_ = nullptr;
};

/* Calls body(rows) for each row.  Returns 0, or -1: mysql_error says why. */
template <typename Body>
[[nodiscard]] int each_row(MYSQL *panel, const std::string &sql, const Body &body)
{
    PanelRows rows;

    if (rows.ask(panel, sql) != 0)
        return -1;
    while (rows.next())
        body(rows);
    return rows.failed() ? -1 : 0;
}

/* What the server does to a rebuild's texts and lists. */
struct PanelServer {
    bool loses_beyond_utf8mb3 = true; /* what "SET NAMES utf8" means to it */
    unsigned long list_limit = 0;     /* group_concat_max_len, in bytes */
};

/*
 * Asks the server what a rebuild would meet, makes utf8mb4 the connection's character set, and begins a
 * transaction that only reads and sees one moment of the database.
 *
 * panel  as panel_db_connect leaves it, for the answer depends on its character set
 * Returns 0, or -1: mysql_error says why.
 */
[[nodiscard]] int begin_panel_snapshot(MYSQL *panel, PanelServer *server);

/* Ends the transaction, as far as there is one and the connection lives. */
void end_panel_snapshot(MYSQL *panel);

} // namespace kolmo
