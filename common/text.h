/*
 * text: formatting into new memory, lower-casing, reading lines.
 */
#pragma once

#include <cctype>
#include <cstddef>
#include <cstdio>

#include "common/owned.h"

namespace kolmo
{

/*
 * Format into new memory: text that the caller owns, released with free.
 *
 * Never null: "Cannot allocate memory: <reason>" through report_error ends the process with status 1.
 */
[[gnu::format(printf, 1, 2), gnu::returns_nonnull, nodiscard]] char *xasprintf(const char *format, ...);

/*
 * Lower-case text in place, byte by byte, by tolower(3) of the current locale: in the C locale, where the
 * program stays, A to Z only, and UTF-8 sequences keep their bytes.  Null is ignored.
 */
void str_tolower(char *text);

/*
 * A copy of text in lower case, as str_tolower makes it, owned by the caller and released with free.
 *
 * Null for a null text, and when memory runs out: then "System error: <reason>" is logged at priority 3.
 */
[[nodiscard]] char *strdup_lower(const char *text);

/* isspace(3) of a byte. */
[[nodiscard]] inline bool is_space(char c)
{
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

/* The next line with its newline, in a buffer of `size` bytes that grows with it; false when there is none.
 */
[[nodiscard]] bool read_line(std::FILE *file, OwnedText &buffer, std::size_t &size);

} // namespace kolmo
