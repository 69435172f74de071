#include "responder_store/responder_db.h"

#include <array>

#include "common/text.h"
#include "responder_store/responder_store_op.h"

namespace kolmo
{

const char *responder_db_path = "/var/lib/kolmo/mail/autoresponder/responder.db";

OwnedText make_mailname(const char *mailbox, const char *domain)
{
    OwnedText mailname(xasprintf("%s@%s", mailbox, domain));

    str_tolower(mailname.get());
    return mailname;
}

int remove_mailbox_rows(StoreConnection *connection, const char *mailbox, const char *domain, Sql<1> sql,
                        TextFormat<2> refused)
{
    return to_result(with_responder_store(connection, [&](StoreOp &op) {
        const OwnedText mailname = make_mailname(mailbox, domain);
        const std::array key = {bind_text(mailname.get(), "Unable to bind parameter mailname: %s")};

        op.begin();
        if (!op.run(sql, key))
            log_failure(refused, mailname.get(), op.detail());
        return op.end();
    }));
}

} // namespace kolmo
