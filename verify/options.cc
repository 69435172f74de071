#include "verify/options.h"

#include <CLI/CLI.hpp>

namespace kolmo
{

namespace
{

const char footer[] = "Exit status: 0 all as the panel says, 1 findings, 2 trouble.\n"
                      "See mail_responders_verify(8) for every finding, its cause and what mends it.";

} // namespace

std::optional<int> parse_options(int argc, char **argv, ProgramOptions *options)
{
    CLI::App app("Does the mail server answer as the panel says?", "mail_responders_verify");

    app.set_version_flag("-V,--version", "mail_responders_verify " KOLMO_VERSION, "Print the version");
    app.add_option("--domain", options->domains, "Look at this domain only, in either form; may be repeated")
        ->type_name("NAME")
        ->allow_extra_args(false);
    add_common_options(&app, "How long a locked store is waited for", options);
    app.footer(footer);
    return parse_command_line(&app, argc, argv);
}

} // namespace kolmo
