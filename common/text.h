/*
 * text: formatting into new memory, and lower-casing.
 */
#ifndef KOLMO_COMMON_TEXT_H
#define KOLMO_COMMON_TEXT_H

namespace kolmo
{

/*
 * Format into new memory: text that the caller owns, released with free.
 *
 * Never null: when it cannot be formatted, "Cannot allocate memory: <reason>" is printed through report_error
 * and the process ends with status 1.
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

} // namespace kolmo

#endif
