/* The report about a panel utility that failed: its words, byte for byte, on both streams. */
#include <string>

#include <sys/wait.h>

#include "exec/panel_utility.h"
#include "tests/fuzz/fake_child.h"
#include "tests/fuzz/fuzz_support.h"

namespace kolmo::testing
{

namespace
{

struct Utility {
    std::string name;
    std::string out;
    std::string err;
    int code;
    bool holds;
};

struct Report {
    std::string out;
    std::string err;
    int result;
};

std::string closed_line(const std::string &text)
{
    return !text.empty() && text.back() == '\n' ? text : text + '\n';
}

Report expected_report(const Utility &utility)
{
    const std::string path = "/opt/qsx/admin/sbin/" + utility.name;
    std::string report;

    if (utility.name.find('/') != std::string::npos) {
        report = closed_line("Utility name '" + utility.name +
                             "' is invalid. Use only utility name without path.");
        return {report, report, -1};
    }
    if (utility.code == 0)
        return {"", "", 0};
    if (utility.holds && utility.err.empty()) /* nothing was read, not even the end */
        report = closed_line(path + " execution failed (no output)");
    else
        report = closed_line(path + " execution failed:\n" + until_zero(utility.err));
    return {report, until_zero(utility.out) + report, utility.code};
}

/* A long text from a short one: reports have a size at which they are made in another way. */
std::string stretched(const std::string &text, std::size_t times)
{
    std::string all = text;

    for (std::size_t i = 0; i < times && all.size() < 9000; i++)
        all += all;
    return all;
}

Utility read_utility(Input *input)
{
    const auto code = static_cast<int>(input->number(256));
    const bool holds = input->number(2) == 1;
    const std::size_t out_times = input->number(14);
    const std::size_t err_times = input->number(14);
    const std::string name = input->text();
    const std::string out = input->text();

    return {name, stretched(out, out_times), stretched(input->rest(), err_times), code, holds};
}

} // namespace

} // namespace kolmo::testing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size)
{
    using namespace kolmo::testing;
    Input input(bytes, size);
    const Utility utility = read_utility(&input);
    const Report expected = expected_report(utility);
    const char *const argv[] = {"fake", nullptr};
    const StreamsInMemory streams;

    plan_child({{{ChildStep::print_out, utility.out}, {ChildStep::print_err, utility.err}},
                utility.code << 8,
                utility.holds});
    require(kolmo::run_panel_utility_argv(utility.name.c_str(), argv) == expected.result, "result");
    end_child();
    require_same(StreamsInMemory::take_out(), expected.out, "standard output");
    require_same(StreamsInMemory::take_err(), expected.err, "standard error");
    return 0;
}
