#include "verify/options.h"

namespace kolmo
{

std::optional<int> parse_options(int argc, char **argv, ProgramOptions *options)
{
    const CommandLine line = {
        "mail_responders_verify",
        "Does the mail server answer as the panel says?",
        {{"--domain", "NAME", "Tell of this domain only, in either form; may be repeated",
          &options->domains}},
        "How long a locked store is waited for",
        "Exit status: 0 all as the panel says, 1 findings, 2 trouble.\n"
        "See mail_responders_verify(8) for every finding, its cause and what mends it.",
    };

    return parse_command_line(argc, argv, line, options);
}

} // namespace kolmo
