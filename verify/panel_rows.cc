#include "verify/panel_rows.h"

#include <cstdlib>

namespace kolmo
{

int PanelRows::ask(MYSQL *panel, const std::string &sql)
{
    panel_ = panel;
    result_.reset();
    if (mysql_real_query(panel, sql.data(), sql.size()) != 0)
        return -1;
    result_.reset(mysql_use_result(panel));
    return result_ != nullptr ? 0 : -1;
}

bool PanelRows::next()
{
    row_ = mysql_fetch_row(result_.get());
    return row_ != nullptr;
}

/* A null row is the end of the rows as well as a broken connection. */
bool PanelRows::failed() const
{
    return mysql_errno(panel_) != 0;
}

std::string_view PanelRows::text(unsigned int column) const
{
    return panel_text(row_[column]);
}

unsigned long PanelRows::number(unsigned int column) const
{
    return std::strtoul(panel_text(row_[column]), nullptr, 10);
}

int begin_panel_snapshot(MYSQL *panel, PanelServer *server)
{
    static const char *const statements[] = {
        "SET SESSION TRANSACTION ISOLATION LEVEL REPEATABLE READ",
        "START TRANSACTION WITH CONSISTENT SNAPSHOT, READ ONLY",
    };
    const auto take = [&](const PanelRows &row) {
        server->loses_beyond_utf8mb3 = row.text(0) != "utf8mb4";
        server->list_limit = row.number(1);
    };

    if (each_row(panel, "SELECT @@character_set_results, @@group_concat_max_len", take) != 0 ||
        mysql_set_character_set(panel, "utf8mb4") != 0)
        return -1;
    for (const char *const statement : statements) {
        if (mysql_query(panel, statement) != 0)
            return -1;
    }
    return 0;
}

void end_panel_snapshot(MYSQL *panel)
{
    (void)mysql_query(panel, "COMMIT");
}

} // namespace kolmo
