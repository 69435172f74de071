#include "refresh/options.h"

#include <CLI/CLI.hpp>

namespace kolmo
{

namespace
{

const char footer[] =
    "Exit status: 0 published or nothing to do, 1 not published (with -n: there is something to do),\n"
    "2 trouble.  See mail_responders_refresh(8).";

} // namespace

std::optional<int> parse_refresh_options(int argc, char **argv, RefreshOptions *options)
{
    CLI::App app("Rebuilds the autoresponder's stores aside, looks at them and publishes them at once.",
                 "mail_responders_refresh");

    app.set_version_flag("-V,--version", "mail_responders_refresh " KOLMO_VERSION, "Print the version");
    app.add_flag("-n,--dry-run", options->dry_run, "Say what would change, and touch nothing");
    app.add_flag("--rows", options->rows, "Say each row that changes");
    app.add_flag("--partial", options->partial, "Publish in spite of a failed rebuild or of findings");
    app.add_flag("--prune", options->prune, "Remove autoresponder handlers that the panel does not want");
    app.add_option("--stage", options->stage, "Stage in this folder, not in memory")->type_name("DIR");
    app.add_option("--rebuild", options->rebuild, "Run this mail_responders_rebuild")->type_name("PATH");
    add_common_options(&app, "How long a lock is waited for, each time", options);
    app.footer(footer);
    return parse_command_line(&app, argc, argv);
}

} // namespace kolmo
