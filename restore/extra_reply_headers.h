/*
 * extra_reply_headers: the panel's "auto_reply_headers" setting.
 */
#pragma once

#include "responder_store/kit/store_connection.h"

namespace kolmo
{

/*
 * Parses `json` (RFC 8259), an object of header names and values, and writes the pairs to the store in
 * document order, as responder_db_add_extra_headers does, also when there are none.  A number is taken as it
 * is written, true, false and null as these words, an object or array as the empty text; members of the same
 * name are all written; an array at the root gives values without names, a bare value at the root nothing.
 *
 * connection  as for responder_db_add_extra_headers
 * Returns 0, or -1: after logging, at priority 3, "Unable to parse auto-reply headers json: %s" (the
 * reader's text; a null `json` counts as a text that cannot be parsed), with nothing written, or as the
 * writer failed.  No exception leaves it.
 */
[[nodiscard]] int store_extra_headers(StoreConnection *connection, const char *json);

} // namespace kolmo
