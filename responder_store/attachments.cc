#include "responder_store/responder_db.h"

#include <array>

#include "responder_store/responder_store_op.h"

namespace kolmo
{

int responder_db_add_attachments(StoreConnection *connection, const char *mailbox, const char *domain,
                                 const char *const *filenames, int count)
{
    return to_result(with_responder_store(connection, [&](StoreOp &op) {
        if (count == 0 || op.begin() != Ending::done)
            return op.ending();

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

        run_rows<2>(op, "REPLACE INTO attachments VALUES (?, ?  );", count, row, refused);
        return op.end();
    }));
}

int responder_db_remove_attachments(StoreConnection *connection, const char *mailbox, const char *domain)
{
    /* "add" of a deletion: docs/compatibility.md. */
    return remove_mailbox_rows(connection, mailbox, domain, "DELETE FROM attachments WHERE mn = ?;",
                               "Unable to add autoresponder attachment (%s): %s");
}

} // namespace kolmo
