#include "restore/alias_propagation.h"

#include "common/log.h"
#include "handlers_store/handlers_db.h"
#include "panel/panel_db.h"
#include "responder_store/kit/store_op.h"
#include "restore/domain_query.h"
#include "restore/run_handles.h"

namespace kolmo
{

namespace
{

bool restore_alias(const char *domain, const char *alias)
{
    if (handlers_db_copy(nullptr, nullptr, domain, nullptr, alias) != 0) {
        log_message(LOG_ERR, "Unable to set mail handlers for domain alias %s", alias);
        return false;
    }
    if (copy_responders_to_alias(&responder_db, domain, alias) != 0) {
        log_message(LOG_ERR, "Unable to sync configuration for domain alias %s", alias);
        return false;
    }
    return true;
}

/*
 * A refused copy is neither ended nor closed: the run stops there, and its last close discards both.
 */
Ending run_copies(StoreOp &op, const char *copy_responders, const char *copy_attachments)
{
    op.begin();
    if (!op.run(Sql<0>::made(copy_responders), {})) {
        log_failure("Unable to exec query1: %s", op.detail());
        return Ending::failed;
    }
    if (!op.run(Sql<0>::made(copy_attachments), {})) {
        log_failure("Unable to exec query2: %s", op.detail());
        return Ending::failed;
    }
    return op.end();
}

} // namespace

int restore_alias_responders(const char *domain_id, const char *domain)
{
    /* Two blanks before WHERE: docs/compatibility.md. */
    const PanelResult aliases =
        query_domain("SELECT name FROM domain_aliases  WHERE dom_id=%s", domain_id,
                     "Unable to generate query for domain aliases", "Unable to query domain aliases: %s");

    if (aliases == nullptr)
        return -1;
    while (const MYSQL_ROW row = mysql_fetch_row(aliases.get())) {
        if (!restore_alias(domain, panel_text(row[0])))
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

    return to_result(run_copies(op, copy_responders.get(), copy_attachments.get()));
}

} // namespace kolmo
