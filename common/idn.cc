#include "common/idn.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

#include <idna.h>
#include <regex.h>

#include "common/owned.h"
#include "common/report_error.h"
#include "common/text.h"

namespace kolmo
{

int idn_last_error = IDNA_SUCCESS;

namespace
{

struct CodeText {
    int code;
    const char *text;
};

constexpr CodeText code_texts[] = {
    {IDNA_SUCCESS, "Success"},
    {IDNA_STRINGPREP_ERROR, "Stringprep error"},
    {IDNA_PUNYCODE_ERROR, "Punycode error"},
    {IDNA_CONTAINS_NON_LDH, "Contains non-LDH characters"},
    {IDNA_CONTAINS_MINUS, "Contains minus"},
    {IDNA_INVALID_LENGTH, "Invalid length"},
    {IDNA_NO_ACE_PREFIX, "ACE prefix not found"},
    {IDNA_ROUNDTRIP_VERIFY_ERROR, "Verify error"},
    {IDNA_CONTAINS_ACE_PREFIX, "ACE prefix found"},
    {IDNA_ICONV_ERROR, "Iconv error"},
    {IDNA_MALLOC_ERROR, "Cannot allocate buffer"},
};

constexpr const char *url_pattern = "^(ftp://|https?://)?([^@]+@)?([^/:]+)(.*)?$";

/* The groups of url_pattern. */
enum UrlGroup { URL_WHOLE, URL_SCHEME, URL_USER, URL_HOST, URL_REST, URL_GROUPS };

char url_buffer[4096];

struct RegexReason {
    char text[4096];

    RegexReason(int rc, const regex_t *regex) { (void)regerror(rc, regex, text, sizeof text); }
};

using UrlGroups = regmatch_t[URL_GROUPS];

/* Ends the process when libidn has run out of memory; false, with the code kept, when it failed otherwise. */
bool conversion_succeeded(int rc)
{
    if (rc == IDNA_MALLOC_ERROR)
        report_fatal("Allocation failed");
    if (rc != IDNA_SUCCESS)
        idn_last_error = rc;
    return rc == IDNA_SUCCESS;
}

/* What the _safe functions share: null ends the process. */
char *or_exit(char *converted, const char *function, const char *argument)
{
    if (converted == nullptr)
        report_fatal("%s(%s) failed: %s", function, argument, idn_strerror(idn_last_error));
    return converted;
}

[[nodiscard]] bool matched(const regmatch_t &group)
{
    return group.rm_so >= 0;
}

/* Finds the parts of url; reports why there are none. */
[[nodiscard]] bool match_url(const char *url, UrlGroups &groups)
{
    regex_t compiled;
    int rc = regcomp(&compiled, url_pattern, REG_EXTENDED);

    if (rc != 0)
        report_fatal("regcomp() failed: %s", RegexReason(rc, &compiled).text);

    const std::unique_ptr<regex_t, Release<regfree>> regex(&compiled);
    rc = regexec(regex.get(), url, URL_GROUPS, groups, 0);
    if ((rc == 0 && !matched(groups[URL_HOST])) || (rc == REG_NOMATCH && url[0] == ':')) {
        /* A leading colon starts a port, and the expression cannot see that the host before it is empty. */
        report_error(0, 0, "no hostname found in URL");
        return false;
    }
    if (rc != 0) {
        report_error(0, 0, "regexec() failed: %s", RegexReason(rc, regex.get()).text);
        return false;
    }
    return true;
}

/* Cut to what the buffer has room for. */
void append_to_url(const char *text, std::size_t length)
{
    const std::size_t used = std::strlen(url_buffer);
    const std::size_t taken = std::min(length, sizeof url_buffer - 1 - used);

    std::memcpy(url_buffer + used, text, taken);
    url_buffer[used + taken] = '\0';
}

void append_group(const char *url, const regmatch_t &group)
{
    if (matched(group))
        append_to_url(url + group.rm_so, static_cast<std::size_t>(group.rm_eo - group.rm_so));
}

} // namespace

const char *idn_strerror(int code)
{
    for (const CodeText &row : code_texts)
        if (row.code == code)
            return row.text;
    return "Unknown error";
}

char *idn_to_ascii(const char *domain)
{
    char *output = nullptr;
    const int rc = idna_to_ascii_8z(domain, &output, 0);
    OwnedText ascii(output);

    return conversion_succeeded(rc) ? ascii.release() : nullptr;
}

char *idn_toascii_safe(const char *domain)
{
    return or_exit(idn_to_ascii(domain), "idn_toascii_safe", domain);
}

char *idn_to_unicode(const char *domain)
{
    char *output = nullptr;

    (void)conversion_succeeded(idna_to_unicode_8z8z(domain, &output, 0));
    return output;
}

char *idn_email_toascii(const char *address)
{
    const char *at = std::strchr(address, '@');

    if (at == nullptr)
        return nullptr;

    const OwnedText domain(idn_to_ascii(at + 1));
    if (domain == nullptr)
        return nullptr;
    return xasprintf("%.*s@%s", static_cast<int>(at - address), address, domain.get());
}

char *idn_email_toascii_safe(const char *address)
{
    return or_exit(idn_email_toascii(address), "idn_email_toascii_safe", address);
}

char *idn_url_toascii(const char *url)
{
    UrlGroups groups;

    if (!match_url(url, groups))
        return nullptr;
    url_buffer[0] = '\0';
    append_group(url, groups[URL_HOST]);
    const OwnedText host(idn_to_ascii(url_buffer));
    if (host == nullptr) {
        report_error(0, 0, "idn_toascii() failed: %s", idn_strerror(idn_last_error));
        return nullptr;
    }
    url_buffer[0] = '\0';
    append_group(url, groups[URL_SCHEME]);
    append_group(url, groups[URL_USER]);
    append_to_url(host.get(), std::strlen(host.get()));
    append_group(url, groups[URL_REST]);
    return url_buffer;
}

} // namespace kolmo
