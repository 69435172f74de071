#include "restore/extra_reply_headers.h"

#include "common/log.h"
#include "panel/reply_headers.h"
#include "responder_store/responder_db.h"

namespace kolmo
{

int store_extra_headers(StoreConnection *connection, const char *json)
{
    ReplyHeaders headers;
    char reason[4096];

    if (read_reply_headers(json, &headers, reason, sizeof reason) != 0) {
        log_message(LOG_ERR, "Unable to parse auto-reply headers json: %s", reason);
        return -1;
    }
    return responder_db_add_extra_headers(connection, headers.names.data(), headers.values.data(),
                                          static_cast<int>(headers.names.size()));
}

} // namespace kolmo
