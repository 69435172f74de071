/*
 * printable: texts that others wrote, made fit for a terminal.
 */
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kolmo
{

/* Control characters (C0, DEL, C1), marks that change the direction of writing, and bytes that are no UTF-8
   become \n, \t, \x1b or \u202e; a backslash is doubled.  Nothing that is left can steer a terminal. */
[[nodiscard]] std::string printable(std::string_view text);

/* How many columns of a terminal a printable text takes. */
[[nodiscard]] std::size_t columns_of(std::string_view text);

/* A printable text cut to the columns, with "..." where something is missing. */
[[nodiscard]] std::string cut_columns(std::string_view text, std::size_t columns);

/* Two texts cut around the place where they begin to differ, so that this can be seen in that many columns.
 */
struct TwoTexts {
    std::string first;
    std::string second;
};
[[nodiscard]] TwoTexts cut_around_difference(const std::string &first, const std::string &second,
                                             std::size_t columns);

/* A printable text in lines of that many columns, broken at blanks; a word that is longer stays whole. */
[[nodiscard]] std::vector<std::string> wrap(std::string_view text, std::size_t columns);

} // namespace kolmo
