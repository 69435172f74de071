/*
 * command_line: reads the command line of a program that looks at the stores, and what such programs take
 * alike.
 */
#pragma once

#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace kolmo
{

enum class Color { when_terminal, always, never };

/* --json, --quiet, --progress, --no-progress, --wait and --color. */
struct CommonOptions {
    bool json = false;
    bool quiet = false;           /* findings and trouble only */
    std::optional<bool> progress; /* nothing: on a terminal, unless quiet */
    int wait_seconds = 60;
    Color color = Color::when_terminal;
};

/* An option of one program's own, and where what is given is put. */
struct OwnOption {
    const char *names;
    const char *value; /* what the help calls it; null for a flag, which has none */
    const char *help;
    std::variant<bool *, std::string *, std::vector<std::string> *> target; /* the last: may be repeated */
};

struct CommandLine {
    const char *program;
    const char *purpose;
    std::vector<OwnOption> own;
    const char *wait_help; /* what --wait is for */
    const char *footer;    /* of the help */
};

/* Whether standard output gets colours, and standard error a progress line. */
[[nodiscard]] bool wants_color(const CommonOptions &options);
[[nodiscard]] bool wants_progress(const CommonOptions &options);

/*
 * Reads the command line into the targets of the own options and into `common`.  Help and version are printed
 * on standard output; what is not understood, on standard error with the usage, behind the program's name.
 *
 * Returns nothing when the program is to go on, otherwise the status to end with: 0, or 2 for usage.
 */
[[nodiscard]] std::optional<int> parse_command_line(int argc, char **argv, const CommandLine &line,
                                                    CommonOptions *common);

} // namespace kolmo
