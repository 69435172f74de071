/*
 * text: formatting into new memory, and lower-casing.
 */
#ifndef KOLMO_COMMON_TEXT_H
#define KOLMO_COMMON_TEXT_H

namespace kolmo
{

/* Never null: when memory runs out the process ends through report_error with exit code 1. */
[[gnu::format(printf, 1, 2), gnu::returns_nonnull, nodiscard]] char *xasprintf(const char *format, ...);

/* In place, byte by byte, by the C library's tolower; null is ignored. */
void str_tolower(char *text);

[[nodiscard]] char *strdup_lower(const char *text);

} // namespace kolmo

#endif
