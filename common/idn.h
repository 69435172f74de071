/*
 * idn: internationalised domain names, addresses and URLs to and from their ASCII form.
 *
 * The conversion is IDNA 2003 (RFC 3490) as GNU libidn does it, with neither of its flags.  Texts are UTF-8
 * whatever the locale.  Codes are libidn's (Idna_rc).  When libidn runs out of memory, "Allocation failed" is
 * printed through report_error and the process ends with status 1; "printed" below is report_error too.
 */
#ifndef KOLMO_COMMON_IDN_H
#define KOLMO_COMMON_IDN_H

namespace kolmo
{

/* The library's code of the latest conversion that failed; success leaves it alone.  0 at the start. */
extern int idn_last_error;

/*
 * A domain in its ASCII form: new text, owned by the caller, released with free.
 * Null when it cannot be converted; the code is in idn_last_error and nothing is printed.
 */
[[nodiscard]] char *idn_to_ascii(const char *domain);

/* The same, never null: "idn_toascii_safe(<domain>) failed: <reason>" is printed and the process ends with
 * status 1. */
[[nodiscard]] char *idn_toascii_safe(const char *domain);

/*
 * A domain in its UTF-8 form: new text, owned by the caller, released with free.  Labels that are no
 * ACE labels stay as they are.
 * When it cannot be converted: what the library gave, as a rule null; the code is in idn_last_error.
 */
[[nodiscard]] char *idn_to_unicode(const char *domain);

/*
 * A mail address with its domain in ASCII: new text, owned by the caller, released with free.  The domain
 * starts after the first '@'; what stands before it is kept byte for byte.
 *
 * Null for an address without '@', which leaves idn_last_error alone, and for a domain that cannot be
 * converted, with the code in idn_last_error.
 */
[[nodiscard]] char *idn_email_toascii(const char *address);

/*
 * The same, never null: "idn_email_toascii_safe(<address>) failed: <reason>" is printed and the process ends
 * with status 1.  For an address without '@' the reason is that of the conversion that failed last, whichever
 * it was.
 */
[[nodiscard]] char *idn_email_toascii_safe(const char *address);

/*
 * A URL with its host in ASCII, everything else as it was.  Schemes are ftp, http and https, or none; then
 * comes a user up to the first '@', if there is one, and the host up to the next '/' or ':'.
 *
 * Returns text in a buffer of 4096 bytes of the function's own, cut to it and overwritten by the next call:
 * not to be freed, and not to be passed as url.  Null after one of these was printed:
 *
 *   "regexec() failed: <reason>"        not a URL
 *   "no hostname found in URL"          nothing stands before the ':' of the port
 *   "idn_toascii() failed: <reason>"    the host cannot be converted; the code is in idn_last_error
 */
[[nodiscard]] char *idn_url_toascii(const char *url);

/* The text of a code, static; "Unknown error" for one without a text. */
[[nodiscard]] const char *idn_strerror(int code);

} // namespace kolmo

#endif
