#include "restore/alias_propagation.h"

#include <cstdio>

#include "common/log.h"
#include "handlers_store/handlers_db.h"
#include "panel/panel_db.h"
#include "responder_store/store_op.h"
#include "restore/program_flow.h"

namespace kolmo
{

namespace
{

int restore_alias(const char *domain, const char *alias)
{
    if (handlers_db_copy(nullptr, nullptr, domain, nullptr, alias) != 0) {
        log_message(LOG_ERR, "Unable to set mail handlers for domain alias %s", alias);
        return 1;
    }
    if (copy_responders_to_alias(&responder_db, domain, alias) != 0) {
        log_message(LOG_ERR, "Unable to sync configuration for domain alias %s", alias);
        return 1;
    }
    return 0;
}

int run_copies(StoreOp &op, const char *copy_responders, const char *copy_attachments)
{
    int step;

    if (op.begin() != 0 || op.run(copy_responders, {}, &step) != 0)
        return -1;
    if (step != SQLITE_DONE) {
        /* Deliberately neither ended nor closed: the run stops here and its last close discards all. */
        log_failure("Unable to exec query1: %s", op.detail());
        return -1;
    }
    if (op.run(copy_attachments, {}, &step) != 0)
        return -1;
    if (step != SQLITE_DONE) {
        log_failure("Unable to exec query2: %s", op.detail());
        return -1;
    }
    return op.end();
}

} // namespace

int restore_alias_responders(const char *domain_id, const char *domain)
{
    char query[4096];
    const int length =
        std::snprintf(query, sizeof query, "SELECT name FROM domain_aliases  WHERE dom_id=%s", domain_id);

    if (length < 1 || length >= static_cast<int>(sizeof query)) {
        log_message(LOG_ERR, "Unable to generate query for domain aliases");
        return -1;
    }

    const PanelResult aliases = panel_select(panel_db, query, static_cast<unsigned long>(length));

    if (aliases == nullptr) {
        log_message(LOG_ERR, "Unable to query domain aliases: %s", mysql_error(panel_db));
        return -1;
    }
    while (const MYSQL_ROW row = mysql_fetch_row(aliases.get())) {
        if (restore_alias(domain, panel_text(row[0])) != 0)
            return 1;
    }
    return 0;
}

int copy_responders_to_alias(StoreConnection *connection, const char *domain, const char *alias)
{
    /* No column list: the order of the columns is fixed.  Single quotes, because SQLite may be built to take
       a text in double quotes for a column's name only, and %q, because a name may hold one. */
    const SqliteText copy_responders(sqlite3_mprintf(
        "REPLACE INTO autoresponder SELECT replace(mn, '@%q', '@%q'), keystr, key_where, subject, reply_to, "
        "forward_to, content_type, charset, body, ans_freq, ans_limit, real_owner FROM autoresponder;",
        domain, alias));

    if (copy_responders == nullptr) {
        log_message(LOG_ERR, "Unable to prepare query1: out of memory");
        return -1;
    }

    const SqliteText copy_attachments(sqlite3_mprintf(
        "REPLACE INTO attachments SELECT replace(mn, '@%q', '@%q'), filename FROM attachments;", domain,
        alias));

    if (copy_attachments == nullptr) {
        log_message(LOG_ERR, "Unable to prepare query2: out of memory");
        return -1;
    }

    StoreConnection none;
    StoreOp op(connection != nullptr ? connection : &none);

    return run_copies(op, copy_responders.get(), copy_attachments.get());
}

} // namespace kolmo
