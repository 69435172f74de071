#include "responder_store/responder_db.h"

#include <array>

#include "responder_store/responder_store_op.h"

namespace kolmo
{

namespace
{

constexpr Sql<12> add_autoresponder_sql =
    "REPLACE INTO autoresponder (keystr, key_where, subject, reply_to, forward_to, content_type, charset, "
    "body, ans_freq, ans_limit, real_owner, mn) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?  );";

} // namespace

int responder_db_add_autoresponder(StoreConnection *connection, const char *mailbox, const char *domain,
                                   const ResponderRecord *record)
{
    return to_result(with_responder_store(connection, [&](StoreOp &op) {
        const OwnedText mailname = make_mailname(mailbox, domain);
        const OwnedText owner = make_mailname(record->mail_name, domain);
        const std::array row = {
            bind_text(record->keystr, "Unable to bind parameter keystr: %s"),
            bind_text(record->key_where, "Unable to bind parameter key_where: %s"),
            bind_text(record->subject, "Unable to bind parameter subject: %s"),
            bind_text(record->reply_to, "Unable to bind parameter reply_to: %s"),
            bind_text(record->forward_address, "Unable to bind parameter forward_to: %s"),
            bind_text(record->content_type, "Unable to bind parameter content_type: %s"),
            bind_text(record->charset, "Unable to bind parameter charset: %s"),
            bind_text(record->text, "Unable to bind parameter body: %s"),
            bind_int(record->ans_freq, "Unable to bind parameter ans_freq: %s"),
            bind_int(record->mem_limit, "Unable to bind parameter ans_limit: %s"),
            bind_text(owner.get(), "Unable to bind parameter real_owner: %s"),
            bind_text(mailname.get(), "Unable to bind parameter mailname: %s"),
        };

        op.begin();
        if (!op.run(add_autoresponder_sql, row)) {
            /* Deliberately neither ended nor closed: the transaction stays open on the connection. */
            log_failure("Unable to add/update autoresponder (%s): %s", mailname.get(), op.detail());
            return Ending::failed;
        }
        return op.end();
    }));
}

int responder_db_remove_autoresponder(StoreConnection *connection, const char *mailbox, const char *domain)
{
    /* "add" of a deletion: docs/compatibility.md. */
    return remove_mailbox_rows(connection, mailbox, domain, "DELETE FROM autoresponder WHERE mn = ?;",
                               "Unable to add autoresponder data (%s): %s");
}

} // namespace kolmo
