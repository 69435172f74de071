/*
 * responder_store_op: what only the responder store's operations share.
 */
#pragma once

#include <utility>

#include "common/owned.h"
#include "responder_store/kit/store_op.h"
#include "responder_store/responder_db.h"

namespace kolmo
{

/* The key of the mailbox's rows: "mailbox@domain" in lower case. */
[[nodiscard]] OwnedText make_mailname(const char *mailbox, const char *domain);

/* with_store for the responder store, wherever responder_db_path leads at this moment. */
template <typename Body>
[[nodiscard]] Ending with_responder_store(StoreConnection *connection, Body &&body)
{
    return with_store(connection, responder_db_path, OpenMode::read_write, std::forward<Body>(body));
}

/*
 * Deletes a mailbox's rows: `sql` with the mailname as its one parameter, in a transaction.  A refused
 * deletion is logged with `refused` (mailname, detail) and is deliberately no failure.
 */
[[nodiscard]] int remove_mailbox_rows(StoreConnection *connection, const char *mailbox, const char *domain,
                                      Sql<1> sql, TextFormat<2> refused);

} // namespace kolmo
