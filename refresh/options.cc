#include "refresh/options.h"

namespace kolmo
{

std::optional<int> parse_refresh_options(int argc, char **argv, RefreshOptions *options)
{
    const CommandLine line = {
        "mail_responders_refresh",
        "Rebuilds the autoresponder's stores aside, looks at them and publishes them at once.",
        {
            {"-n,--dry-run", nullptr, "Say what would change, and touch nothing", &options->dry_run},
            {"--rows", nullptr, "Say each row that changes", &options->rows},
            {"--partial", nullptr, "Publish in spite of a failed rebuild or of findings", &options->partial},
            {"--prune", nullptr, "Remove autoresponder handlers that the panel does not want",
             &options->prune},
            {"--stage", "DIR", "Stage in this folder, not in memory", &options->stage},
            {"--rebuild", "PATH", "Run this mail_responders_rebuild", &options->rebuild},
        },
        "How long a lock is waited for, each time",
        "Exit status: 0 published or nothing to do, 1 not published (with -n: there is something to do),\n"
        "2 trouble.  See mail_responders_refresh(8).",
    };

    return parse_command_line(argc, argv, line, options);
}

} // namespace kolmo
