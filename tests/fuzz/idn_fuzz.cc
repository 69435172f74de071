/*
 * Domains, addresses and URLs and their ASCII form.
 *
 * What a domain becomes is libidn's; here are the rules that need no table: what is ASCII stays, what comes
 * out is ASCII and stays when it is converted again, and only the domain of an address or a URL changes.
 */
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <string>

#include "common/idn.h"
#include "common/owned.h"
#include "tests/fuzz/fuzz_support.h"

namespace kolmo::testing
{

namespace
{

constexpr std::size_t url_size = 4095;
constexpr int no_error = -1;

/* "NULL" and the code, or "=" and the text. */
std::string outcome(const char *text)
{
    return text != nullptr ? shown(text) : "NULL " + std::to_string(idn_last_error);
}

std::string to_ascii(const std::string &domain)
{
    const OwnedText ascii(idn_to_ascii(domain.c_str()));

    return outcome(ascii.get());
}

bool is_ascii(const std::string &text)
{
    return std::all_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x80; });
}

/* A label that was ASCII stays as it is, capitals too; its Unicode form has none. */
std::string in_lower_case(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(c < 0x80 ? std::tolower(c) : c); });
    return text;
}

/* Labels of 1 to 63 characters; only the last may be empty, for the root, if it is not alone. */
bool has_good_labels(const std::string &domain)
{
    std::size_t start = 0;

    if (domain.empty() || domain == ".")
        return true;
    for (;;) {
        const std::size_t dot = std::min(domain.find('.', start), domain.size());
        const std::size_t length = dot - start;

        if (dot == domain.size() && length == 0)
            return true;
        if (length < 1 || length > 63)
            return false;
        if (dot == domain.size())
            return true;
        start = dot + 1;
    }
}

void check_domain(const std::string &domain)
{
    idn_last_error = no_error;
    const std::string ascii = to_ascii(domain);
    const bool converted = ascii[0] == '=';

    require(converted == (idn_last_error == no_error), "only a failure leaves a code");
    if (is_ascii(domain))
        require(converted ? ascii == "=" + domain : !has_good_labels(domain), "ASCII stays as it is");
    if (!converted)
        return;
    require(is_ascii(ascii), "the ASCII form is ASCII");
    if (!has_good_labels(ascii.substr(1)))
        return; /* a character of a label has become dots, as U+FE30 does: nobody can take that apart again */
    require_same(to_ascii(ascii.substr(1)), ascii, "the ASCII form of the ASCII form");

    const OwnedText unicode(idn_to_unicode(ascii.c_str() + 1));

    require(unicode != nullptr, "the ASCII form has a Unicode form");
    require_same(in_lower_case(to_ascii(unicode.get())), in_lower_case(ascii), "there and back");
}

void check_address(const std::string &address)
{
    const std::size_t at = address.find('@');
    std::string model = "NULL " + std::to_string(no_error);

    if (at != std::string::npos) {
        model = to_ascii(address.substr(at + 1));
        if (model[0] == '=')
            model = "=" + address.substr(0, at) + "@" + model.substr(1);
    }
    idn_last_error = no_error;
    const OwnedText ascii(idn_email_toascii(address.c_str()));

    require_same(outcome(ascii.get()), model, "address");
}

struct UrlParts {
    std::string before; /* scheme and user */
    std::string host;   /* none: not a URL */
    std::string rest;
};

/* Before the host stands what `skipped` characters are, and a user if a host follows it. */
UrlParts split_after(const std::string &url, std::size_t skipped)
{
    const std::size_t at = url.find('@', skipped);
    UrlParts parts;

    for (const std::size_t start : {at == std::string::npos || at == skipped ? skipped : at + 1, skipped}) {
        const std::size_t end = std::min(url.find_first_of("/:", start), url.size());

        parts = {url.substr(0, start), url.substr(start, end - start), url.substr(end)};
        if (!parts.host.empty())
            break;
    }
    return parts;
}

UrlParts split_url(const std::string &url)
{
    for (const std::string &scheme : {"ftp://", "http://", "https://"}) {
        const UrlParts parts = split_after(url, scheme.size() * (url.rfind(scheme, 0) == 0));

        if (!parts.host.empty() && parts.before.size() >= scheme.size() && url.rfind(scheme, 0) == 0)
            return parts;
    }
    return split_after(url, 0);
}

/* The URL in its buffer, or what is printed instead. */
std::string expected_url(const std::string &url, std::string *report)
{
    const UrlParts parts = split_url(url);

    if (parts.host.empty()) {
        *report = url[0] == ':' ? "no hostname found in URL\n" : "regexec() failed: No match\n";
        return "NULL";
    }
    idn_last_error = no_error;
    const std::string host = to_ascii(parts.host.substr(0, url_size));

    if (host[0] != '=') {
        *report = "idn_toascii() failed: " + std::string(idn_strerror(idn_last_error)) + "\n";
        return "NULL";
    }
    return "=" + (parts.before + host.substr(1) + parts.rest).substr(0, url_size);
}

void check_url(const std::string &url)
{
    std::string report;
    const std::string model = expected_url(url, &report);
    const StreamsInMemory streams;

    errno = 0;
    require_same(shown(idn_url_toascii(url.c_str())), model, "URL");
    require_same(StreamsInMemory::take_err(), report, "report on standard error");
    require_same(StreamsInMemory::take_out(), report, "report on standard output");
}

} // namespace

} // namespace kolmo::testing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size)
{
    using namespace kolmo::testing;
    Input input(bytes, size);
    const std::size_t padding = input.number(8) == 7 ? 4200 : 0;
    const std::string text = input.text();

    check_domain(text);
    check_address(text);
    check_url(text + std::string(padding, 'x'));
    return 0;
}
