/*
 * options: the command line of mail_responders_refresh.
 */
#pragma once

#include <optional>
#include <string>

#include "verify/command_line.h"

namespace kolmo
{

struct RefreshOptions : CommonOptions {
    bool dry_run = false; /* say what would change, touch nothing */
    bool rows = false;    /* say each row that changes */
    bool partial = false; /* publish in spite of a rebuild that failed, or of findings */
    bool prune = false;   /* remove the autoresponder handlers that the panel does not want */
    std::string stage;    /* the folder to stage in; empty for memory */
    std::string rebuild;  /* the program to run; empty for the one beside this one, or the installed one */
};

/*
 * Reads the command line as parse_command_line does.
 *
 * Returns nothing when the program is to go on, otherwise the status to end with: 0, or 2 for usage.
 */
[[nodiscard]] std::optional<int> parse_refresh_options(int argc, char **argv, RefreshOptions *options);

} // namespace kolmo
