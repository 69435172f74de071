/*
 * idn: internationalised domain names, addresses and URLs to and from their ASCII form.
 */
#ifndef KOLMO_COMMON_IDN_H
#define KOLMO_COMMON_IDN_H

namespace kolmo
{

/* The library's code of the latest conversion that failed; success leaves it alone. */
extern int idn_last_error;

[[nodiscard]] char *idn_to_ascii(const char *domain);
[[nodiscard]] const char *idn_strerror(int code);

} // namespace kolmo

#endif
