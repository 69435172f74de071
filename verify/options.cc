#include "verify/options.h"

#include <iostream>
#include <map>

#include <CLI/CLI.hpp>

namespace kolmo
{

namespace
{

constexpr int usage_status = 2;
constexpr int longest_wait = 86400;

const char footer[] = "Exit status: 0 all as the panel says, 1 findings, 2 trouble.\n"
                      "See mail_responders_verify(8) for every finding, its cause and what mends it.";

void add_options(CLI::App *app, ProgramOptions *options)
{
    static const std::map<std::string, Color> colors = {
        {"auto", Color::when_terminal}, {"always", Color::always}, {"never", Color::never}};

    app->set_help_flag("-h,--help", "Print this help");
    app->set_version_flag("-V,--version", "mail_responders_verify " KOLMO_VERSION, "Print the version");
    app->add_option("--domain", options->domains, "Look at this domain only, in either form; may be repeated")
        ->type_name("NAME")
        ->allow_extra_args(false);
    app->add_flag("--json", options->json, "One JSON object a line");
    app->add_flag("-q,--quiet", options->quiet, "Print findings only");
    app->add_flag_callback(
        "--progress", [=] { options->progress = true; }, "Show progress on standard error");
    app->add_flag_callback(
        "--no-progress", [=] { options->progress = false; }, "Show none on a terminal either");
    app->add_option("--wait", options->wait_seconds, "How long a locked store is waited for")
        ->type_name("SECONDS")
        ->check(CLI::Range(0, longest_wait).description(""))
        ->capture_default_str();
    app->add_option("--color", options->color, "Colours: auto, always or never")
        ->type_name("WHEN")
        ->transform(CLI::Transformer(colors).description(""));
    app->footer(footer);
}

} // namespace

std::optional<int> parse_options(int argc, char **argv, ProgramOptions *options)
{
    CLI::App app("Does the mail server answer as the panel says?", "mail_responders_verify");

    add_options(&app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success &success) {
        return app.exit(success);
    } catch (const CLI::Error &error) {
        std::cerr << "mail_responders_verify: " << error.what() << "\n" << app.help();
        return usage_status;
    } catch (const std::exception &error) {
        std::cerr << "mail_responders_verify: " << error.what() << "\n";
        return usage_status;
    }
    return std::nullopt;
}

} // namespace kolmo
