#include "panel/panel_query.h"

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "common/report_error.h"
#include "panel/panel_db.h"

namespace kolmo
{

namespace
{

/* Values and query texts are cut to it: results are static, so that no caller has to free them. */
constexpr std::size_t text_size = 4096;

char query_result[text_size];
char setting_result[text_size];

/* The caller's connection or, when that is null, one that `own` closes; null after the report of a failure.
 */
MYSQL *connection_or_own(MYSQL *connection, PanelConnection *own, const char *complaint)
{
    if (connection != nullptr)
        return connection;
    own->reset(panel_db_connect());
    if (*own == nullptr)
        report_error(0, 0, "%s", complaint);
    return own->get();
}

/* A statement that gives no rows by its nature has no result, and a result may be narrower than asked. */
const char *first_row_value(MYSQL_RES *result, int column)
{
    if (result == nullptr || static_cast<unsigned int>(column) >= mysql_num_fields(result))
        return "";
    const MYSQL_ROW row = mysql_fetch_row(result);
    return row != nullptr ? panel_text(row[column]) : "";
}

/*
 * What a query just sent, with the result `rc`, has given, into a result buffer of text_size bytes; null,
 * with mysql_error to tell why, when it failed or its rows got lost on their way.
 */
const char *take_value(int rc, MYSQL *connection, int column, char *buffer)
{
    if (rc != 0)
        return nullptr;

    const PanelResult result(mysql_store_result(connection));
    if (result == nullptr && mysql_errno(connection) != 0)
        return nullptr;
    (void)std::snprintf(buffer, text_size, "%s", first_row_value(result.get(), column));
    return buffer;
}

} // namespace

const char *panel_query_value(const char *query, MYSQL *connection, int column)
{
    PanelConnection own;

    connection = connection_or_own(connection, &own, "Unable to connect to the mysql database\n");
    if (connection == nullptr)
        return nullptr;

    const char *const value = take_value(mysql_query(connection, query), connection, column, query_result);
    if (value == nullptr)
        report_error(0, 0, "Unable to query parameter by query %s: %s\n", query, mysql_error(connection));
    return value;
}

const char *panel_query_first_value(const char *query, MYSQL *connection)
{
    return panel_query_value(query, connection, 0);
}

const char *panel_query_param(const char *key, const char *table, const char *key_column,
                              const char *value_column, MYSQL *connection)
{
    char query[text_size];

    (void)std::snprintf(query, sizeof query, "select %s from %s where %s='%s'", value_column, table,
                        key_column, key);
    return panel_query_first_value(query, connection);
}

const char *panel_misc_param(const char *name, MYSQL *connection)
{
    return panel_query_param(name, "misc", "param", "val", connection);
}

const char *panel_mail_server_setting(const char *name, MYSQL *connection)
{
    PanelConnection own;

    connection = connection_or_own(connection, &own, "Unable to connect to mysql database\n");
    if (connection == nullptr)
        return nullptr;
    (void)std::snprintf(setting_result, sizeof setting_result,
                        "select value from ServiceNodeConfiguration where name='%s' and serviceNodeId=1 and "
                        "section='mailServer'",
                        name);

    const int rc = mysql_real_query(connection, setting_result, std::strlen(setting_result));
    const char *const value = take_value(rc, connection, 0, setting_result);
    if (value == nullptr)
        report_error(0, 0, "Unable to query domain parameter %s: %s\n", name, mysql_error(connection));
    return value;
}

} // namespace kolmo
