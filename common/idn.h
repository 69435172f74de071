/*
 * idn: internationalised domain names, addresses and URLs to and from their ASCII form.
 *
 * The conversion is IDNA 2003 (RFC 3490) as GNU libidn does it, with neither of its flags.  Texts are UTF-8
 * whatever the locale.  Codes are libidn's (Idna_rc).  New texts are the caller's, released with free.
 *
 * What is printed goes through report_error.  "Allocation failed" (libidn has run out of memory) ends the
 * process with status 1, and so does "%s(%s) failed: %s" (function, argument, reason) in the _safe functions,
 * which never return null.
 */
#pragma once

namespace kolmo
{

/* The library's code of the latest conversion that failed; success leaves it alone.  0 at the start. */
extern int idn_last_error;

/* A domain in its ASCII form: new text; null, with the code in idn_last_error, after a failure. */
[[nodiscard]] char *idn_to_ascii(const char *domain);

/* The same, or the end of the process. */
[[nodiscard]] char *idn_toascii_safe(const char *domain);

/*
 * A domain in its UTF-8 form: new text; labels that are no ACE labels stay as they are.
 * When it cannot be converted: what the library gave, as a rule null; the code is in idn_last_error.
 */
[[nodiscard]] char *idn_to_unicode(const char *domain);

/*
 * A mail address with its domain in ASCII: new text.  The domain starts after the first '@'; what stands
 * before it is kept byte for byte.
 * Null for an address without '@', which leaves idn_last_error alone, and for a domain that cannot be
 * converted, with the code in idn_last_error.
 */
[[nodiscard]] char *idn_email_toascii(const char *address);

/* The same, or the end of the process; without an '@' with the reason of whichever conversion failed last. */
[[nodiscard]] char *idn_email_toascii_safe(const char *address);

/*
 * A URL with its host in ASCII, everything else as it was.  The host stands behind "ftp://", "http://" or
 * "https://" (lower case; may be missing) and the first '@' of the text (if any), and ends at the next '/' or
 * ':'.  So a '@' in the path makes all before it a user, a query without a '/' is converted with the host,
 * and the word of any other scheme, "HTTP" too, is taken for the host, as is that of "http://:80/".
 *
 * Returns text in a buffer of 4096 bytes of the function's own, cut to it and overwritten by the next call:
 * not to be freed, and not to be passed as url.  Null after one of these was printed:
 *
 *   "regexec() failed: <reason>"        not a URL
 *   "no hostname found in URL"          nothing stands before the ':' of the port
 *   "idn_toascii() failed: <reason>"    the host cannot be converted; the code is in idn_last_error
 */
[[nodiscard]] char *idn_url_toascii(const char *url);

/* The fixed text of a code; "Unknown error" for one without a text. */
[[nodiscard]] const char *idn_strerror(int code);

} // namespace kolmo
