#include "responder_store/responder_db.h"

#include <array>

#include "responder_store/responder_store_op.h"

namespace kolmo
{

int responder_db_add_attachments(StoreConnection *connection, const char *mailbox, const char *domain,
                                 const char *const *filenames, int count)
{
    return with_responder_store(connection, [&](StoreOp &op) {
        if (count == 0)
            return 0;
        if (op.begin() != 0)
            return -1;

        const OwnedText mailname = make_mailname(mailbox, domain);
        const auto row = [&](int i) {
            return std::array{
                bind_text(mailname.get(), "Unable to bind parameter mailname: %s"),
                bind_text(filenames[i], "Unable to bind parameter filename: %s"),
            };
        };
        const auto refused = [&] {
            log_failure("Unable to add autoresponder attachment (%s): %s", mailname.get(), op.detail());
        };

        if (run_rows(op, "REPLACE INTO attachments VALUES (?, ?  );", count, row, refused) != 0)
            return -1;
        return op.end();
    });
}

int responder_db_remove_attachments(StoreConnection *connection, const char *mailbox, const char *domain)
{
    /* The message has always said "add" of a deletion, the very one of the writer above. */
    return remove_mailbox_rows(connection, mailbox, domain, "DELETE FROM attachments WHERE mn = ?;",
                               "Unable to add autoresponder attachment (%s): %s");
}

} // namespace kolmo
