/*
 * options: the command line of mail_responders_verify.
 */
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "verify/command_line.h"

namespace kolmo
{

struct ProgramOptions : CommonOptions {
    std::vector<std::string> domains;
};

/*
 * Reads the command line.  Help and version are printed on standard output; what it does not understand, on
 * standard error with the usage.
 *
 * Returns nothing when the program is to go on, otherwise the status to end with: 0, or 2 for usage.
 */
[[nodiscard]] std::optional<int> parse_options(int argc, char **argv, ProgramOptions *options);

} // namespace kolmo
