/*
 * common_options: what the programs that look at the stores take alike on their command lines.
 */
#pragma once

#include <optional>

namespace CLI
{
class App;
}

namespace kolmo
{

enum class Color { when_terminal, always, never };

struct CommonOptions {
    bool json = false;
    bool quiet = false;           /* findings and trouble only */
    std::optional<bool> progress; /* nothing: on a terminal, unless quiet */
    int wait_seconds = 60;
    Color color = Color::when_terminal;
};

/* Whether standard output gets colours, and standard error a progress line. */
[[nodiscard]] bool wants_color(const CommonOptions &options);
[[nodiscard]] bool wants_progress(const CommonOptions &options);

/* Adds --json, --quiet, --progress, --no-progress, --wait, --color and --help; `wait_help` says what for. */
void add_common_options(CLI::App *app, const char *wait_help, CommonOptions *options);

/*
 * Reads the command line.  Help and version are printed on standard output; what is not understood, on
 * standard error with the usage, behind the program's name.
 *
 * Returns nothing when the program is to go on, otherwise the status to end with: 0, or 2 for usage.
 */
[[nodiscard]] std::optional<int> parse_command_line(CLI::App *app, int argc, char **argv);

} // namespace kolmo
