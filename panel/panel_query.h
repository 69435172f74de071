/*
 * panel_query: single values out of the panel database.
 *
 * Every lookup works on the connection that it is given, which stays open and the caller's whatever
 * happens, or, given null, on one of its own that is closed again before it returns.  A value that is
 * not set and a failure can be told apart:
 *
 *   no row, SQL's NULL, or a statement without rows   ""
 *   failure, or rows that get lost on their way       null, reported through report_error with exit code 0
 *
 * The reports, which end in a newline and carry whatever errno stood before: "Unable to query parameter by
 * query %s: %s" (query, the server's text) and, after panel_db_connect's, "Unable to connect to the mysql
 * database"; for panel_mail_server_setting "Unable to query domain parameter %s: %s" (setting, the server's
 * text) and "Unable to connect to mysql database".
 *
 * A result is a static buffer, overwritten by the next lookup of the same family (panel_mail_server_setting
 * has one to itself).  Values and the queries that are built here are cut at 4095 bytes.  Texts go into the
 * queries without escaping: pass only names and keys that are safe between single quotes.
 */
#pragma once

#include <mysql.h>

namespace kolmo
{

/* A column (from 0) of the first row that a query gives; a column that the result does not have is "". */
[[nodiscard]] const char *panel_query_value(const char *query, MYSQL *connection, int column);

/* The first column of the first row. */
[[nodiscard]] const char *panel_query_first_value(const char *query, MYSQL *connection);

/* The value column of the table's first row whose key column equals key. */
[[nodiscard]] const char *panel_query_param(const char *key, const char *table, const char *key_column,
                                            const char *value_column, MYSQL *connection);

/* A panel-wide parameter: column `val` of table `misc` where `param` is its name. */
[[nodiscard]] const char *panel_misc_param(const char *name, MYSQL *connection);

/* A setting of the mail server on the panel's own node, from table `ServiceNodeConfiguration`. */
[[nodiscard]] const char *panel_mail_server_setting(const char *name, MYSQL *connection);

} // namespace kolmo
