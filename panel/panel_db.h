/*
 * panel_db: the client connection to the panel database, and whole queries on it.
 *
 * The server is found and entered with what the panel keeps on disk: the DSN file, the administrator's
 * password file and the panel configuration's socket.
 */
#pragma once

#include <cstddef>
#include <memory>

#include <mysql.h>

#include "common/owned.h"

namespace kolmo
{

using PanelConnection = std::unique_ptr<MYSQL, Release<mysql_close>>;
using PanelResult = std::unique_ptr<MYSQL_RES, Release<mysql_free_result>>;

/*
 * panel_db_connect_ex with a failure's text reported through report_error (an empty one when the library gave
 * a connection that carries an error number of its own).
 *
 * errno is not cleaned: after success it holds what connecting left there (often EAGAIN), after failure what
 * belongs to the failure.
 */
[[nodiscard]] MYSQL *panel_db_connect();

/*
 * Connect to the panel database, character set UTF-8.
 *
 * error_buffer  gets the text of a failure, cut to buffer_size bytes with the terminator.  It is left as it
 *               is when the handle carries an error number right after connecting, so start it empty.
 * Returns the handle, the caller's to end with mysql_close (a PanelConnection does); null after a failure.
 * When "SET NAMES utf8" fails but the error number reads 0, there is a text and the handle is good all the
 * same.
 *
 * The texts: those of panel_read_credentials, and
 *   "Unable to initialize MySQL connection structure: %s"  system error text
 *   "Unable to connect to Kolmo Database: %s"              the library's or the server's text
 *   "DB error (%s) %u: %s"                                 "set names query", number, text
 *   "DB error (%s): unknown error"                         "set names query"
 *
 * Reads panel_dsn_path, and panel_shadow_path when the former has no password (panel_credentials.h),
 * and conf_get(MYSQL_SOCKET), whose file (panel_conf.h) logs its own troubles; reports and logs nothing
 * else.  errno becomes ENOMEM when there is no memory for the handle.
 */
[[nodiscard]] MYSQL *panel_db_connect_ex(char *error_buffer, std::size_t buffer_size);

/*
 * Run a query and fetch its whole result.  Silent: the caller has mysql_errno and mysql_error to report.
 *
 * sql   the text, not necessarily terminated; length counts the bytes that are sent
 * Returns the result; null when the query fails or its rows get lost on their way, and for a statement that
 * gives no rows by its nature (an update).
 */
[[nodiscard]] PanelResult panel_select(MYSQL *connection, const char *sql, unsigned long length);

/* A column of a row as text: SQL's NULL, a null pointer, reads as "". */
[[nodiscard]] inline const char *panel_text(const char *column)
{
    return column != nullptr ? column : "";
}

} // namespace kolmo
