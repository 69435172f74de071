/*
 * domain_responders: one domain's autoresponders, from the panel database into both stores.
 *
 * The panel's tables and the columns that are read, all as text:
 *   mail          id, dom_id, mail_name, autoresponder   mailboxes; 'true' in autoresponder selects them
 *   mail_resp     id, mn_id (= mail.id), resp_name, keystr, key_where, subject, reply_to, content_type,
 *                 charset, text, resp_on, ans_freq, mem_limit   only rows whose resp_name is 'default'
 *   resp_forward  rn_id (= mail_resp.id), address        none, one or several for an autoresponder
 *   resp_attach   rn_id (= mail_resp.id), filename
 *
 * Everything is logged at priority 3.
 */
#pragma once

#include <mysql.h>

#include "responder_store/kit/store_connection.h"
#include "responder_store/responder_record.h"

namespace kolmo
{

/*
 * Registers the handlers of the domain's mailboxes and then writes their autoresponders, over panel_db and
 * responder_db.  A failed registration leaves the responder store as it was for this domain.
 *
 * Returns 0; -1 after "Unable to generate query for mail names/aliases" or "Unable to query mail names: %s"
 * (the server's text); 1 after "Unable to reconfigure autoresponder for domain %s" or "Unable to sync
 * configuration of autoresponder for domain %s" (the domain).
 */
[[nodiscard]] int restore_domain_responders(const char *domain_id, const char *domain);

/*
 * Reads the default autoresponders of the mailboxes `mail_ids` and writes each for its mailbox.
 *
 * panel                 stays open
 * connection            as for responder_db_add_autoresponder
 * mail_names, mail_ids  lists separated by commas, in the same order
 * Returns 0; -1 after "Unable to query autoresponders: %s" (the server's text); for want of memory after
 * "Failed to store next autoresponder: out of memory", "Failed to add next autoresponder to list: out of
 * memory", "Unable to split mail names list: out of memory" or "Unable to split mail id's list: out of
 * memory" (the latter two after string_array_split's own lines); after a failed write, which ends the walk,
 * or after a mailbox without a default autoresponder ("Unable to restore autoresponder for '%s@%s': ..."),
 * which does not.  What was written before stays.  The id list is cut so that the query has 4095 characters.
 */
[[nodiscard]] int load_domain_responders(MYSQL *panel, StoreConnection *connection, const char *mail_names,
                                         const char *mail_ids, const char *domain);

/*
 * Reads the attachments of an autoresponder and writes it and them for mail_name@domain.
 *
 * Returns 0; -1 after "Unable to query autoresponder %s@%s attachments: %s" (mailbox, domain, the server's
 * text), "Unable to allocate memory for responder attachments", "Unable to reallocate memory for responder
 * attachments", or a failed write: without its autoresponder a mailbox gets no attachments.
 */
[[nodiscard]] int restore_responder_attachments(MYSQL *panel, StoreConnection *connection,
                                                const char *mail_name, const char *domain,
                                                const ResponderRecord *record);

} // namespace kolmo
