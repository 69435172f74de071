/*
 * panel_world: the panel's files and both stores on their real paths, as a run finds and leaves them.
 *
 * Only for tests in the sandbox: the functions write where the panel's own files would be.
 */
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <sqlite3.h>

#include "tests/support/panel_database.h"

namespace kolmo::testing
{

inline const std::string responder_store = "/var/lib/kolmo/mail/autoresponder/responder.db";
inline const std::string handlers_store = "/var/lib/kolmo/mail/handlers/handlers.db";
inline const std::string utility_path = "/opt/qsx/admin/sbin/mail_responders_control";
inline const std::string dsn_path = "/etc/qsx/private/dsn.ini";
inline const std::string shadow_path = "/etc/qsx/.qsx.shadow";
inline const std::string conf_path = "/etc/qsx/qsx.conf";
inline const std::string server_socket = "/run/mysqld/mysqld.sock";

/*
 * As the sandbox starts: the password file, the stand-in utility, an empty handlers store of root:popuser,
 * no responder store yet; neither dsn.ini nor qsx.conf.
 */
void reset_panel_files();

void write_file(const std::string &path, std::string_view content, unsigned int mode = 0600);
std::string read_file(const std::string &path);

/* A shell script in the utility's place; `stand_in` runs the real stand-in within it. */
void write_utility(const std::string &script);
inline const std::string stand_in = "/opt/qsx/stand-in --init-db";

/* Runs SQL on an SQLite file, which is created if missing. */
void change_store(const std::string &path, const std::string &sql);

/* The empty responder store, made here and not by a utility. */
void make_responder_store();

/* All rows, sorted: "autoresponder 'info@a.test','',...", values as SQL literals in the table's order. */
std::vector<std::string> responder_rows();
std::vector<std::string> handler_rows();

/* The rows that a query gives, in its order, a row's values joined by commas. */
std::vector<std::string> query_store(const std::string &path, const std::string &sql);

/* What the rows should be. */
std::string reply_row(const std::string &address, const PanelResponder &responder = {},
                      const std::string &owner = "", const std::string &forward = "");
std::string attachment_row(const std::string &address, const std::string &filename);
std::string header_row(const std::string &name, const std::string &value);
std::string handler_row(const std::string &address);

/* A handler of somebody else's as it stands in handler_rows(), and the same put into the store. */
std::string foreign_handler_row(const std::string &address, int priority = 10,
                                const std::string &name = "antivirus");
std::string add_foreign_handler(const std::string &address, int priority = 10,
                                const std::string &name = "antivirus");

/* A transaction in both stores that stands in others' way, from construction to release(). */
class StoreLock
{
public:
    enum class Kind {
        exclusive, /* nobody else may read or write */
        reader,    /* nobody else may end what they wrote */
    };

    explicit StoreLock(Kind kind);
    ~StoreLock() { release(); }
    StoreLock(const StoreLock &) = delete;
    StoreLock &operator=(const StoreLock &) = delete;

    void release();

private:
    std::vector<sqlite3 *> holders_;
};

} // namespace kolmo::testing
