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

constexpr std::size_t result_size = 4096;
constexpr std::size_t query_size = 4096;

char query_result[result_size];
char setting_result[result_size];

/* The caller's connection or, when that is null, one that `own` closes; null when there is none to be had. */
MYSQL *connection_or_own(MYSQL *connection, PanelConnection *own)
{
    if (connection != nullptr)
        return connection;
    own->reset(panel_db_connect());
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

/* What the query just sent on the connection gave, into a result buffer of result_size bytes. */
const char *take_value(MYSQL *connection, int column, char *buffer)
{
    const PanelResult result(mysql_store_result(connection));

    (void)std::snprintf(buffer, result_size, "%s", first_row_value(result.get(), column));
    return buffer;
}

} // namespace

const char *panel_query_value(const char *query, MYSQL *connection, int column)
{
    PanelConnection own;

    connection = connection_or_own(connection, &own);
    if (connection == nullptr) {
        report_error(0, 0, "Unable to connect to the mysql database\n");
        return nullptr;
    }
    if (mysql_query(connection, query) != 0) {
        report_error(0, 0, "Unable to query parameter by query %s: %s\n", query, mysql_error(connection));
        return nullptr;
    }
    return take_value(connection, column, query_result);
}

const char *panel_query_first_value(const char *query, MYSQL *connection)
{
    return panel_query_value(query, connection, 0);
}

const char *panel_query_param(const char *key, const char *table, const char *key_column,
                              const char *value_column, MYSQL *connection)
{
    char query[query_size];

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

    connection = connection_or_own(connection, &own);
    if (connection == nullptr) {
        report_error(0, 0, "Unable to connect to mysql database\n");
        return nullptr;
    }
    (void)std::snprintf(setting_result, sizeof setting_result,
                        "select value from ServiceNodeConfiguration where name='%s' and serviceNodeId=1 and "
                        "section='mailServer'",
                        name);
    if (mysql_real_query(connection, setting_result, std::strlen(setting_result)) != 0) {
        report_error(0, 0, "Unable to query domain parameter %s: %s\n", name, mysql_error(connection));
        return nullptr;
    }
    return take_value(connection, 0, setting_result);
}

} // namespace kolmo
