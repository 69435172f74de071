#include "verify/command_line.h"

#include <cstdlib>
#include <iostream>
#include <map>

#include <CLI/CLI.hpp>
#include <unistd.h>

namespace kolmo
{

namespace
{

constexpr int usage_status = 2;
constexpr int longest_wait = 86400;

struct OptionAdder {
    CLI::App *app;
    const OwnOption &option;

    void operator()(bool *target) const { app->add_flag(option.names, *target, option.help); }
    void operator()(std::string *target) const
    {
        app->add_option(option.names, *target, option.help)->type_name(option.value);
    }
    void operator()(std::vector<std::string> *target) const
    {
        app->add_option(option.names, *target, option.help)->type_name(option.value)->allow_extra_args(false);
    }
};

void add_common_options(CLI::App *app, const char *wait_help, CommonOptions *options)
{
    static const std::map<std::string, Color> colors = {
        {"auto", Color::when_terminal}, {"always", Color::always}, {"never", Color::never}};

    app->set_help_flag("-h,--help", "Print this help");
    app->add_flag("--json", options->json, "One JSON object a line");
    app->add_flag("-q,--quiet", options->quiet, "Print findings and trouble only");
    app->add_flag_callback(
        "--progress", [=] { options->progress = true; }, "Show progress on standard error");
    app->add_flag_callback(
        "--no-progress", [=] { options->progress = false; }, "Show none on a terminal either");
    app->add_option("--wait", options->wait_seconds, wait_help)
        ->type_name("SECONDS")
        ->check(CLI::Range(0, longest_wait).description(""))
        ->capture_default_str();
    app->add_option_function<std::string>(
           "--color", [=](const std::string &when) { options->color = colors.at(when); },
           "Colours: auto, always or never")
        ->type_name("WHEN")
        ->check(CLI::IsMember(colors).description(""));
}

} // namespace

bool wants_color(const CommonOptions &options)
{
    const char *const no_color = std::getenv("NO_COLOR"); /* https://no-color.org */

    if (options.color != Color::when_terminal)
        return options.color == Color::always;
    return ::isatty(STDOUT_FILENO) == 1 && (no_color == nullptr || *no_color == '\0');
}

bool wants_progress(const CommonOptions &options)
{
    return options.progress.value_or(!options.quiet && ::isatty(STDERR_FILENO) == 1);
}

std::optional<int> parse_command_line(int argc, char **argv, const CommandLine &line, CommonOptions *common)
{
    CLI::App app(line.purpose, line.program);

    app.set_version_flag("-V,--version", std::string(line.program) + " " KOLMO_VERSION, "Print the version");
    for (const OwnOption &option : line.own)
        std::visit(OptionAdder{&app, option}, option.target);
    add_common_options(&app, line.wait_help, common);
    app.footer(line.footer);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success &success) {
        return app.exit(success);
    } catch (const CLI::Error &error) {
        std::cerr << line.program << ": " << error.what() << "\n" << app.help();
        return usage_status;
    } catch (const std::exception &error) {
        std::cerr << line.program << ": " << error.what() << "\n";
        return usage_status;
    }
    return std::nullopt;
}

} // namespace kolmo
