/*
 * panel_db: the client connection to the panel database.
 *
 * The server is found and entered with what the panel keeps on disk: the DSN file, the administrator's
 * password file and the panel configuration's socket.  The program connects once and keeps the handle
 * for its whole run.
 *
 * The owners keep errno when they release: they run on the way out of failures whose errno the
 * caller's report still has to show.
 */
#ifndef KOLMO_PANEL_PANEL_DB_H
#define KOLMO_PANEL_PANEL_DB_H

#include <cerrno>
#include <cstddef>
#include <memory>

#include <mysql.h>

namespace kolmo
{

struct ClosePanelConnection {
    void operator()(MYSQL *connection) const noexcept
    {
        const int saved_errno = errno;
        mysql_close(connection);
        errno = saved_errno;
    }
};

struct FreePanelResult {
    void operator()(MYSQL_RES *result) const noexcept
    {
        const int saved_errno = errno;
        mysql_free_result(result);
        errno = saved_errno;
    }
};

using PanelConnection = std::unique_ptr<MYSQL, ClosePanelConnection>;
using PanelResult = std::unique_ptr<MYSQL_RES, FreePanelResult>;

/*
 * Connect to the panel database, character set UTF-8; what fails is reported.
 *
 * Returns the handle, which the caller ends with mysql_close (a PanelConnection does); null after a
 * failure, which report_error has shown on standard error and standard output (empty when the library
 * gave a connection that carries an error number of its own).  The process goes on in either case.
 *
 * Reads what panel_db_connect_ex reads.  errno is not cleaned: after success it holds what connecting
 * left there (often EAGAIN), after failure what belongs to the failure.
 */
[[nodiscard]] MYSQL *panel_db_connect();

/*
 * The same for a caller that does its own reporting.
 *
 * error_buffer  gets the text of a failure, cut to buffer_size bytes with the terminator.  It is left
 *               as it is after success, and when the server's handle carries an error number right after
 *               connecting, so start it empty.
 * Returns the handle, the caller's to close; null after a failure, with everything closed that was
 * opened here.  One failure is none: when "SET NAMES utf8" fails but the error number reads 0, the
 * text is in the buffer and the handle is good all the same.
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
 * connection  stays open and the caller's, whatever happens
 * sql         the text, not necessarily terminated; length counts the bytes that are sent
 * Returns the result; null when the query or the fetching fails, and for a statement that gives no
 * rows by its nature (an update).
 */
[[nodiscard]] PanelResult panel_select(MYSQL *connection, const char *sql, unsigned long length);

/* A column of a row as text: SQL's NULL, a null pointer, reads as "". */
[[nodiscard]] inline const char *panel_text(const char *column)
{
    return column != nullptr ? column : "";
}

} // namespace kolmo

#endif
