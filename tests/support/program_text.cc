#include "tests/support/program_text.h"

#include <map>
#include <regex>

namespace kolmo::testing
{

std::string replaced(const std::string &text, const std::string &pattern, const std::string &by)
{
    thread_local std::map<std::string, std::regex> compiled;

    return std::regex_replace(text, compiled.try_emplace(pattern, pattern).first->second, by);
}

std::string unwrapped(const std::string &text)
{
    return replaced(text, "\n +", " ");
}

std::string without_seconds(const std::string &json)
{
    return replaced(json, "\"seconds\":[0-9.e+-]+", "\"seconds\":0");
}

} // namespace kolmo::testing
