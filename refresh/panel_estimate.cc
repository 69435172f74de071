#include "refresh/panel_estimate.h"

#include "verify/panel_rows.h"

namespace kolmo
{

namespace
{

/* Each mailbox that answers, once for each name of its domain. */
const char estimate_sql[] =
    "SELECT SUM(n.names), SUM(n.names * (IFNULL(OCTET_LENGTH(r.subject), 0) + "
    "IFNULL(OCTET_LENGTH(r.text), 0))) FROM mail m JOIN (SELECT d.id, 1 + (SELECT COUNT(*) FROM "
    "domain_aliases a WHERE a.dom_id=d.id) AS names FROM domains d JOIN DomainServices s ON s.dom_id=d.id "
    "AND "
    "s.type='mail') n ON n.id=m.dom_id LEFT JOIN mail_resp r ON r.mn_id=m.id AND r.resp_name='default' "
    "WHERE m.autoresponder='true'";

} // namespace

int estimate_rebuild(MYSQL *panel, PanelEstimate *estimate)
{
    return each_row(panel, estimate_sql, [&](const PanelRows &row) {
        estimate->replies = row.number(0);
        estimate->bytes = row.number(1);
    });
}

} // namespace kolmo
