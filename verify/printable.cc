#include "verify/printable.h"

#include <algorithm>
#include <cstdint>
#include <utility>

namespace kolmo
{

namespace
{

constexpr std::uint32_t no_character = 0xffffffff;

struct Character {
    std::uint32_t code;
    std::size_t length; /* in bytes; 1 for a byte that is no UTF-8 */
};

/* As RFC 3629 has it: no overlong forms, no surrogates. */
Character first_character(std::string_view text)
{
    static constexpr struct {
        unsigned char mask;
        unsigned char lead;
        std::uint32_t least;
    } forms[] = {{0x80, 0x00, 0}, {0xe0, 0xc0, 0x80}, {0xf0, 0xe0, 0x800}, {0xf8, 0xf0, 0x10000}};
    const auto lead = static_cast<unsigned char>(text.front());

    for (std::size_t i = 0; i < std::size(forms); i++) {
        if ((lead & forms[i].mask) != forms[i].lead)
            continue;

        std::uint32_t code = lead & static_cast<unsigned char>(~forms[i].mask);

        if (text.size() <= i)
            break;
        for (std::size_t k = 1; k <= i; k++) {
            const auto byte = static_cast<unsigned char>(text[k]);

            if ((byte & 0xc0) != 0x80)
                return {no_character, 1};
            code = (code << 6) | (byte & 0x3f);
        }
        if (code < forms[i].least || code > 0x10ffff || (code >= 0xd800 && code <= 0xdfff))
            break;
        return {code, i + 1};
    }
    return {no_character, 1};
}

using Range = std::pair<std::uint32_t, std::uint32_t>;

template <std::size_t count>
bool is_in(const Range (&ranges)[count], std::uint32_t code)
{
    return std::any_of(std::begin(ranges), std::end(ranges),
                       [&](const Range &range) { return code >= range.first && code <= range.second; });
}

/* C0, DEL and C1; the line and paragraph separators; what turns the direction of writing. */
bool steers(std::uint32_t code)
{
    static constexpr Range ranges[] = {{0, 0x1f},          {0x7f, 0x9f},     {0x61c, 0x61c},
                                       {0x200e, 0x200f},   {0x2028, 0x202e}, {0x2066, 0x2069},
                                       {0xe0000, 0xe007f}, {0xfff9, 0xfffb}};

    return is_in(ranges, code);
}

std::size_t columns_of_character(std::uint32_t code)
{
    static constexpr Range none[] = {{0x300, 0x36f}, {0x200b, 0x200d}, {0x20d0, 0x20ff}, {0xfe00, 0xfe0f}};
    static constexpr Range two[] = {
        {0x1100, 0x115f}, {0x2e80, 0xa4cf}, {0xac00, 0xd7a3},   {0xf900, 0xfaff},   {0xfe30, 0xfe6f},
        {0xff00, 0xff60}, {0xffe0, 0xffe6}, {0x1f300, 0x1f64f}, {0x1f680, 0x1faff}, {0x20000, 0x3fffd}};

    if (is_in(none, code))
        return 0;
    return is_in(two, code) ? 2 : 1;
}

std::string hex(std::uint32_t value, int digits)
{
    std::string text;

    for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4)
        text += "0123456789abcdef"[(value >> shift) & 15];
    return text;
}

std::string escaped(std::uint32_t code)
{
    switch (code) {
    case '\n':
        return "\\n";
    case '\r':
        return "\\r";
    case '\t':
        return "\\t";
    case '\\':
        return "\\\\";
    default:
        return code <= 0xff ? "\\x" + hex(code, 2) : "\\u" + hex(code, code > 0xffff ? 6 : 4);
    }
}

/* As many whole characters from the beginning as fit. */
std::string_view head(std::string_view text, std::size_t columns)
{
    std::size_t taken = 0;
    std::size_t end = 0;

    while (end < text.size()) {
        const Character character = first_character(text.substr(end));

        taken += columns_of_character(character.code);
        if (taken > columns)
            break;
        end += character.length;
    }
    return text.substr(0, end);
}

/* The text from a place some characters before the byte at which another begins to differ. */
std::string from_before(const std::string &text, std::size_t start, std::size_t columns)
{
    return cut_columns(start > 0 ? "..." + text.substr(start) : text, columns);
}

} // namespace

std::string printable(std::string_view text)
{
    std::string result;

    while (!text.empty()) {
        const Character character = first_character(text);

        if (character.code == no_character)
            result += "\\x" + hex(static_cast<unsigned char>(text.front()), 2);
        else if (character.code == '\\' || steers(character.code))
            result += escaped(character.code);
        else
            result += text.substr(0, character.length);
        text.remove_prefix(character.length);
    }
    return result;
}

std::size_t columns_of(std::string_view text)
{
    std::size_t columns = 0;

    while (!text.empty()) {
        const Character character = first_character(text);

        columns += columns_of_character(character.code);
        text.remove_prefix(character.length);
    }
    return columns;
}

std::string cut_columns(std::string_view text, std::size_t columns)
{
    constexpr std::string_view more = "...";

    if (head(text, columns).size() == text.size())
        return std::string(text);
    return std::string(head(text, columns - more.size())) + std::string(more);
}

TwoTexts cut_around_difference(const std::string &first, const std::string &second, std::size_t columns)
{
    constexpr std::size_t before = 12;
    const auto differ = std::mismatch(first.begin(), first.end(), second.begin(), second.end());
    auto start = static_cast<std::size_t>(differ.first - first.begin());

    if (columns_of(first) <= columns && columns_of(second) <= columns)
        start = 0;
    start = start > columns / 2 ? start - before : 0;
    while (start > 0 && (static_cast<unsigned char>(first[start]) & 0xc0) == 0x80)
        start--;
    return {from_before(first, start, columns), from_before(second, start, columns)};
}

std::vector<std::string> wrap(std::string_view text, std::size_t columns)
{
    std::vector<std::string> lines;
    std::string line;

    while (!text.empty()) {
        const std::size_t end = std::min(text.find(' '), text.size());
        const std::string_view word = text.substr(0, end);

        if (!line.empty() && columns_of(line) + 1 + columns_of(word) > columns) {
            lines.push_back(line);
            line.clear();
        }
        line += (line.empty() ? "" : " ") + std::string(word);
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    if (!line.empty())
        lines.push_back(line);
    return lines;
}

} // namespace kolmo
