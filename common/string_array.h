/*
 * string_array: a null-terminated array of texts on the heap.
 *
 * The array owns its texts.  It is never empty: null stands for nothing.
 */
#pragma once

#include <memory>

#include "common/owned.h"

namespace kolmo
{

/* A heap array of heap texts, closed by a null pointer; released with string_array_free. */
using StringArray = char **;

/*
 * Split text wherever one of the characters of delimiters stands.
 *
 * Runs of delimiters, and those at the start, give no empty entries; the text after the last delimiter is an
 * entry even when it is empty.  So ",,a,,b" gives a and b, "a," gives a and an empty text, "" one empty text.
 *
 * Returns a new array of copies, or null when memory runs out: logged at priority 3 as
 * "System error: <reason>", and, when it ran out with an entry, as "Unable to add string into array" too.
 */
[[nodiscard]] StringArray string_array_split(const char *text, const char *delimiters);

/*
 * Append a copy of text.
 *
 * array   null to start a new one; it may move, so the result takes its place
 *
 * Returns the grown array; or null after "System error: <reason>" was logged at priority 3.  The old array is
 * then left as it is when it could not grow, and freed with its texts when there was no memory for the copy;
 * a caller cannot tell, and has to give it up.
 */
[[nodiscard]] StringArray string_array_add(StringArray array, const char *text);

/* Free the array with its texts; null is accepted. */
void string_array_free(StringArray array);

/* An owner of such an array. */
using OwnedStringArray = std::unique_ptr<char *[], Release<string_array_free>>;

} // namespace kolmo
