/*
 * options: the command line of mail_responders_verify.
 */
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kolmo
{

enum class Color { when_terminal, always, never };

struct ProgramOptions {
    std::vector<std::string> domains;
    bool json = false;
    bool quiet = false;           /* findings and trouble only */
    std::optional<bool> progress; /* nothing: when standard error is a terminal */
    int wait_seconds = 60;
    Color color = Color::when_terminal;
};

/*
 * Reads the command line.  Help and version are printed on standard output; what it does not understand, on
 * standard error with the usage.
 *
 * Returns nothing when the program is to go on, otherwise the status to end with: 0, or 2 for usage.
 */
[[nodiscard]] std::optional<int> parse_options(int argc, char **argv, ProgramOptions *options);

} // namespace kolmo
