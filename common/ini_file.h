/*
 * ini_file: single values out of an INI file.
 *
 * A line of at least three characters, the first '[' and the last ']', starts a section; its name is what
 * stands between them, blanks included.  Entries are "key = value".  A ';' starts a comment wherever it
 * stands, in a value too.  White space around lines, keys and values does not count; case does.  Entries
 * before the first section belong to none and are never found.
 */
#pragma once

#include <cstddef>

namespace kolmo
{

/*
 * The first value of key in section, where a section of that name may occur more than once.
 *
 * Returns new text, owned by the caller and released with free, "" for an empty value.  Null without a word
 * when there is no such entry, and for a path that cannot be looked at or is no regular file; null after
 * "Failed to open <path>: <reason>" on standard error, without a newline, when the file cannot be opened.
 * Reading that fails, or no memory for the text, is null without a word, too.
 *
 * Sets errno to 0 first, so that afterwards it tells of this call only.
 */
[[nodiscard]] char *ini_get_value(const char *path, const char *section, const char *key);

/*
 * The same value as a switch: 1 for "on", "true" and "yes" in any case and for exactly "1"; default_value
 * when there is none or an empty one; 0 for everything else.
 */
[[nodiscard]] int ini_get_bool(const char *path, const char *section, const char *key, int default_value);

/*
 * Trim one line in place: white space at both ends goes, and everything from the first ';' on.
 * Returns the new length, 0 when nothing but white space and a comment was there.
 */
std::size_t trim_ini_line(char *line);

} // namespace kolmo
