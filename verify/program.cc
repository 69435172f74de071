#include "verify/program.h"

#include <chrono>

#include "handlers_store/handlers_db.h"
#include "responder_store/responder_db.h"
#include "verify/options.h"
#include "verify/output.h"
#include "verify/progress.h"
#include "verify/report.h"

namespace kolmo
{

namespace
{

constexpr int trouble_status = 2;

/* Connects and compares; what cannot be done is trouble. */
int look(const ProgramOptions &options, Output *output, VerifySummary *summary)
{
    Progress progress(wants_progress(options));
    const VerifySink sink = {
        .finding =
            [&](const Finding &finding) {
                progress.clear();
                output->finding(finding);
            },
        .trouble =
            [&](const std::string &text) {
                progress.clear();
                output->trouble(text);
            },
        .note =
            [&](const std::string &text) {
                progress.clear();
                output->note(text);
            },
        .progress = [&](unsigned long done, unsigned long all) { progress.show(done, all); },
    };
    const Report report(sink, summary);
    DatabaseSource source;
    const TroubleSink trouble = [&](const std::string &text) {
        report.trouble(text);
    };

    if (read_database_source(&source, trouble) != 0)
        return trouble_status;
    output->begin(source, responder_db_path, handlers_db_path);

    const PanelConnection panel = connect_panel(trouble);

    if (panel == nullptr)
        return trouble_status;
    return verify_stores(panel.get(), {.domains = options.domains, .wait_seconds = options.wait_seconds},
                         sink, summary);
}

} // namespace

int verify_program(int argc, char **argv)
{
    const auto start = std::chrono::steady_clock::now();
    ProgramOptions options;
    VerifySummary summary;

    if (const std::optional<int> status = parse_options(argc, argv, &options))
        return *status;

    const std::unique_ptr<Output> output =
        options.json ? make_json_output(options.quiet)
                     : make_text_output("mail_responders_verify", options.quiet, wants_color(options));
    const int status = look(options, output.get(), &summary);
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - start;

    output->end(summary, passed.count());
    return status;
}

} // namespace kolmo
