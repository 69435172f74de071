#include "refresh/program.h"

#include <chrono>

#include "refresh/interruption.h"
#include "refresh/options.h"
#include "refresh/output.h"
#include "refresh/refresh.h"

namespace kolmo
{

int refresh_program(int argc, char **argv)
{
    const auto start = std::chrono::steady_clock::now();
    RefreshOptions options;

    if (const std::optional<int> status = parse_refresh_options(argc, argv, &options))
        return *status;
    catch_signals();

    const std::unique_ptr<RefreshOutput> output =
        options.json ? make_refresh_json_output(options.quiet)
                     : make_refresh_text_output(options.quiet, wants_color(options));
    RefreshEnd end = refresh_stores(options, output.get());
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - start;

    end.seconds = passed.count();
    output->end(end);
    return result_status(end.result);
}

} // namespace kolmo
