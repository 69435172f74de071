/*
 * alias_propagation: mail for a domain alias is answered like mail for the domain itself.
 */
#pragma once

#include "responder_store/kit/store_connection.h"

namespace kolmo
{

/*
 * Copies the domain's handlers and then its responder rows to each of its aliases, over panel_db and
 * responder_db.
 *
 * Returns 0; -1 after logging, at priority 3, "Unable to generate query for domain aliases" or "Unable to
 * query domain aliases: %s" (the server's text); 1 after "Unable to set mail handlers for domain alias %s" or
 * "Unable to sync configuration for domain alias %s" (the alias), which leave the aliases that follow.
 * An address that is too long to be copied ends the process: handlers_db_copy.
 */
[[nodiscard]] int restore_alias_responders(const char *domain_id, const char *domain);

/*
 * Gives every row of `autoresponder` and `attachments` whose key contains "@" and the domain a twin whose key
 * has the alias instead (every occurrence, case-sensitive; longer domains that begin so match too); the
 * owner stays.  One transaction; all other rows are written again as they are.
 *
 * connection  the store, or null or closed for none, which fails cleanly; closed by a failed prepare, begin
 *             or end, left open with its transaction by a failed copy
 * Returns 0, or -1 after logging at priority 3 the store's messages (responder_store/responder_db.h),
 * "Unable to prepare query1: out of memory", "Unable to prepare query2: out of memory", "Unable to exec
 * query1: %s" or "Unable to exec query2: %s" (detail); without a message when a pause failed.
 */
[[nodiscard]] int copy_responders_to_alias(StoreConnection *connection, const char *domain,
                                           const char *alias);

} // namespace kolmo
