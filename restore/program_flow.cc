#include "restore/program_flow.h"

#include "common/log.h"
#include "exec/panel_utility.h"
#include "panel/panel_db.h"
#include "panel/panel_query.h"
#include "responder_store/kit/busy_retry.h"
#include "responder_store/responder_db.h"
#include "restore/alias_propagation.h"
#include "restore/domain_responders.h"
#include "restore/extra_reply_headers.h"
#include "restore/run_handles.h"

namespace kolmo
{

namespace
{

/* Two blanks before LEFT and before WHERE: docs/compatibility.md. */
const char domains_sql[] =
    "SELECT d.id, d.name FROM domains d  LEFT JOIN DomainServices ds ON d.id=ds.dom_id  "
    "WHERE ds.type='mail'";

int restore_domain(const char *id, const char *name)
{
    const int result = restore_domain_responders(id, name);

    return result != 0 ? result : restore_alias_responders(id, name);
}

/* Stops at the first domain that fails: what follows could only bury its message. */
int restore_domains()
{
    /* The length counts the terminator, which the server is sent, too: docs/compatibility.md. */
    const PanelResult domains = panel_select(panel_db, domains_sql, sizeof domains_sql);

    if (domains == nullptr) {
        log_message(LOG_ERR, "Unable to query domains: %s", mysql_error(panel_db));
        return -1;
    }
    while (const MYSQL_ROW row = mysql_fetch_row(domains.get())) {
        const int result = restore_domain(panel_text(row[0]), panel_text(row[1]));

        if (result != 0)
            return result;
    }
    return 0;
}

int restore_extra_headers()
{
    const char *const headers = panel_mail_server_setting("auto_reply_headers", panel_db);

    if (headers == nullptr)
        return 1;
    return *headers != '\0' ? store_extra_headers(&responder_db, headers) : 0;
}

int restore_from_panel()
{
    panel_db = panel_db_connect();
    if (panel_db == nullptr) {
        log_message(LOG_ERR, "Unable to connect to mysql server");
        return -1;
    }

    const int result = restore_domains();

    return result != 0 ? result : restore_extra_headers();
}

} // namespace

int rebuild_responders(const char *program)
{
    log_init(nullptr, LOG_ERR, LOG_MAIL, LOG_PERROR, program);
    if (run_panel_utility("mail_responders_control", "--init-db", nullptr) != 0) {
        log_message(LOG_ERR, "Unable to re-initialize autoresponder's database");
        return -1;
    }
    if (open_store(&responder_db, responder_db_path, OpenMode::read_write) != Ending::done)
        return -1;

    const int result = restore_from_panel();

    mysql_close(panel_db);
    panel_db = nullptr;
    return close_with_retry(&responder_db) == Ending::done ? result : -1;
}

} // namespace kolmo
