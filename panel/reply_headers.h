/*
 * reply_headers: the pairs of the panel's "auto_reply_headers" setting.
 */
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

namespace kolmo
{

/* Header names and values side by side, in document order; the texts live as long as the tree. */
struct ReplyHeaders {
    std::vector<const char *> names;
    std::vector<const char *> values;
    std::shared_ptr<const void> tree;
};

/*
 * Reads `json` (RFC 8259), an object of header names and values.  A number is taken as it is written, true,
 * false and null as these words, an object or array as the empty text; members of the same name are all
 * kept; an array at the root gives values without names, a bare value at the root nothing.
 *
 * headers       filled on success; after a failure to be dropped
 * error_buffer  gets the reader's text of a failure, cut to buffer_size bytes with the terminator
 * Returns 0, or -1 for a text that cannot be parsed (a null one counts as such) and when memory runs out.
 * Silent; no exception leaves it.
 */
[[nodiscard]] int read_reply_headers(const char *json, ReplyHeaders *headers, char *error_buffer,
                                     std::size_t buffer_size);

} // namespace kolmo
