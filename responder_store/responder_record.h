/*
 * responder_record: one default autoresponder of a mailbox, as the panel database has it.
 */
#pragma once

#include <cstdint>

namespace kolmo
{

/*
 * The record owns its texts; none is null in a record that was loaded.  What responder_record_from_row made
 * (restore/responder_list.h) responder_record_free frees.
 */
struct ResponderRecord {
    std::int32_t id;    /* of the responder: key of its attachments */
    std::int32_t mn_id; /* of the mailbox that it answers for */
    char *resp_name;    /* always "default" among those restored; not stored */
    char *keystr;       /* key string that a message must hold to be answered */
    char *key_where;    /* where that is looked for */
    char *subject;
    char *reply_to;
    char *content_type;
    char *charset;
    char *text;    /* body of the reply */
    char *resp_on; /* not stored: the mailbox's own switch decides */
    std::int32_t ans_freq;
    std::int32_t mem_limit;
    char *forward_address;
    char *mail_name; /* local part of the owner */
};

} // namespace kolmo
