#include "panel/panel_db.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/report_error.h"
#include "panel/panel_conf.h"
#include "panel/panel_credentials.h"

namespace kolmo
{

namespace
{

constexpr std::size_t error_buffer_size = 4097;

/* A fresh handle connected with the panel's credentials, or null and the text of the failure. */
PanelConnection open_connection(char *error_buffer, std::size_t buffer_size)
{
    PanelCredentials credentials;
    if (panel_read_credentials(&credentials, error_buffer, buffer_size) != 0)
        return nullptr;

    PanelConnection connection(mysql_init(nullptr));
    if (connection == nullptr) {
        (void)std::snprintf(error_buffer, buffer_size, "Unable to initialize MySQL connection structure: %s",
                            std::strerror(ENOMEM));
        errno = ENOMEM;
        return nullptr;
    }
    if (mysql_real_connect(connection.get(), credentials.host.get(), credentials.user.get(),
                           credentials.password.get(), credentials.database.get(), credentials.port,
                           conf_get(MYSQL_SOCKET), 0) == nullptr) {
        (void)std::snprintf(error_buffer, buffer_size, "Unable to connect to Kolmo Database: %s",
                            mysql_error(connection.get()));
        return nullptr;
    }
    return connection;
}

/* Whether it worked is for the caller to see from mysql_errno; here only the text of a failure is made. */
void set_names(MYSQL *connection, char *error_buffer, std::size_t buffer_size)
{
    static constexpr char what[] = "set names query";

    if (mysql_query(connection, "SET NAMES utf8") == 0)
        return;
    if (mysql_errno(connection) != 0)
        (void)std::snprintf(error_buffer, buffer_size, "DB error (%s) %u: %s", what, mysql_errno(connection),
                            mysql_error(connection));
    else
        (void)std::snprintf(error_buffer, buffer_size, "DB error (%s): unknown error", what);
}

} // namespace

MYSQL *panel_db_connect()
{
    /* Starts empty: not every failure leaves a text. */
    char error_buffer[error_buffer_size] = "";

    MYSQL *const connection = panel_db_connect_ex(error_buffer, sizeof error_buffer);
    if (connection == nullptr)
        report_error(0, 0, "%s", error_buffer);
    return connection;
}

MYSQL *panel_db_connect_ex(char *error_buffer, std::size_t buffer_size)
{
    PanelConnection connection = open_connection(error_buffer, buffer_size);
    if (connection == nullptr || mysql_errno(connection.get()) != 0)
        return nullptr;

    set_names(connection.get(), error_buffer, buffer_size);
    /* The error number decides, not the query's result: a failure that has none is let pass. */
    if (mysql_errno(connection.get()) != 0)
        return nullptr;
    return connection.release();
}

PanelResult panel_select(MYSQL *connection, const char *sql, unsigned long length)
{
    if (mysql_real_query(connection, sql, length) != 0)
        return nullptr;
    return PanelResult(mysql_store_result(connection));
}

} // namespace kolmo
