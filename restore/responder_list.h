/*
 * responder_list: the default autoresponders of a domain, as they come from the panel database.
 *
 * Silent: callers report what fails.
 */
#pragma once

#include <cstdint>
#include <memory>

#include <mysql.h>

#include "common/owned.h"
#include "responder_store/responder_record.h"

namespace kolmo
{

/*
 * Makes a record of a row whose columns are mail_resp's id, mn_id, resp_name, keystr, key_where, subject,
 * reply_to, content_type, charset, text, resp_on, ans_freq and mem_limit, resp_forward's address and
 * mail's mail_name.  A text that is NULL reads as "", a number (base 10, cut to 32 bits) as 0.
 * Returns the record, the caller's to release with responder_record_free; null when memory ran out.
 */
[[nodiscard]] ResponderRecord *responder_record_from_row(MYSQL_ROW row);

/* Frees the record and its texts; null is ignored. */
void responder_record_free(ResponderRecord *record);

using OwnedResponderRecord = std::unique_ptr<ResponderRecord, Release<responder_record_free>>;

struct ResponderNode {
    ResponderRecord *record; /* the list's */
    ResponderNode *next;
    ResponderNode **back_link; /* the pointer that leads here: the list's head or the previous node's next */
};

/* New records go in at the head, so that a lookup finds the last that came. */
struct ResponderList {
    ResponderNode *head; /* null when empty */
};

/* Makes the list empty, whatever it held. */
void responder_list_init(ResponderList *list);

/* Adds the record, which becomes the list's.  Returns it; null when memory ran out: it stays the caller's. */
ResponderRecord *responder_list_add(ResponderList *list, ResponderRecord *record);

/* The record of the mailbox mn_id that was added last; null when there is none.  It stays the list's. */
[[nodiscard]] ResponderRecord *responder_list_find(const ResponderList *list, std::int32_t mn_id);

/* Frees all records and entries; the list is empty then. */
void responder_list_free(ResponderList *list);

} // namespace kolmo
