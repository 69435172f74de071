/*
 * program_text: what a program said, without what a test does not look at.
 *
 * Only this file's source takes in <regex>: it is five seconds of compiling.
 */
#pragma once

#include <string>

namespace kolmo::testing
{

/* `text` with `by`, in which $1 is the first group, for each match of an ECMAScript pattern. */
std::string replaced(const std::string &text, const std::string &pattern, const std::string &by);

/* Words without the breaks of lines. */
std::string unwrapped(const std::string &text);

/* JSON without the time that something took. */
std::string without_seconds(const std::string &json);

} // namespace kolmo::testing
