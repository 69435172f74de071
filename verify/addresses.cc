#include "verify/addresses.h"

#include <algorithm>

#include "common/idn.h"
#include "common/owned.h"

namespace kolmo
{

namespace
{

bool is_capital(char c)
{
    return c >= 'A' && c <= 'Z';
}

/* Bytes that are no whole character come from columns of bytes, which a rebuild leaves as they are. */
bool begins_beyond_utf8mb3(std::string_view text)
{
    return text.size() >= 4 && text[0] >= '\xf0' && text[0] <= '\xf4' &&
           std::all_of(text.begin() + 1, text.begin() + 4, [](char c) { return (c & 0xc0) == 0x80; });
}

} // namespace

std::string ascii_lower(std::string_view text)
{
    std::string lower(text);

    for (char &c : lower) {
        if (is_capital(c))
            c = static_cast<char>(c - 'A' + 'a');
    }
    return lower;
}

std::string handler_domain(const std::string &name)
{
    const OwnedText ascii(idn_to_ascii(name.c_str()));

    return ascii != nullptr ? ascii_lower(ascii.get()) : "";
}

bool has_capitals(std::string_view text)
{
    return std::any_of(text.begin(), text.end(), is_capital);
}

bool is_beyond_utf8mb3(std::string_view text)
{
    while (!text.empty() && !begins_beyond_utf8mb3(text))
        text.remove_prefix(1);
    return !text.empty();
}

std::string as_utf8mb3(std::string_view text)
{
    std::string result;

    for (std::size_t i = 0; i < text.size(); i++) {
        const bool is_beyond = begins_beyond_utf8mb3(text.substr(i));

        result += is_beyond ? '?' : text[i];
        i += is_beyond ? 3 : 0;
    }
    return result;
}

std::string_view domain_of(std::string_view address)
{
    const std::size_t at = address.rfind('@');

    return at != std::string_view::npos ? address.substr(at + 1) : address;
}

} // namespace kolmo
