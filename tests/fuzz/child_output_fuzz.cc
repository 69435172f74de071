/* A program's output: pieces of any size on both streams, in any order, and its end. */
#include <csignal>
#include <string>

#include <sys/wait.h>

#include "common/owned.h"
#include "exec/child_output.h"
#include "tests/fuzz/fake_child.h"
#include "tests/fuzz/fuzz_support.h"

namespace kolmo::testing
{

namespace
{

/* What is left of a program: nullopt-like "NULL" for a stream that was never read. */
struct Model {
    std::string texts[2];
    bool read[2] = {};
    bool open[2] = {true, true};

    void take(const ChildStep &step);
    [[nodiscard]] bool all_closed(int streams) const { return !open[0] && (streams == 1 || !open[1]); }
    [[nodiscard]] std::string text(int stream) const
    {
        return read[stream] ? shown(texts[stream].c_str()) : "NULL";
    }
};

void Model::take(const ChildStep &step)
{
    const int stream = step.kind % 2;

    if (step.kind >= ChildStep::pause || !open[stream])
        return;
    if (step.kind >= ChildStep::close_out)
        open[stream] = false;
    read[stream] |= !open[stream] || !step.text.empty();
    texts[stream] += step.text;
}

ChildPlan read_plan(Input *input)
{
    constexpr std::size_t sizes[] = {0, 1, 2, 100, 2047, 2048, 2049, 4095, 4096, 8192, 20000, 70000};
    const int ends[] = {0, 3 << 8, 255 << 8, SIGKILL, SIGSEGV | 0x80};
    ChildPlan plan;
    char letter = 'a';

    plan.status = ends[input->number(5)];
    plan.holds = input->number(2) == 1;
    while (!input->is_empty() && plan.steps.size() < 40) {
        const auto kind = static_cast<ChildStep::Kind>(input->number(ChildStep::kinds));
        const bool prints = kind <= ChildStep::print_err;
        const std::size_t size = prints ? sizes[input->number(std::size(sizes))] + input->number(16) : 0;

        plan.steps.push_back({kind, std::string(size, letter)});
        letter = letter == 'z' ? 'a' : static_cast<char>(letter + 1);
    }
    return plan;
}

/* Both pipes are closed, so that the end has to be waited for, or the end was seen while they were open. */
Model expect(const ChildPlan &plan, int streams, bool *waited)
{
    Model model;

    for (const ChildStep &step : plan.steps) {
        model.take(step);
        if (model.all_closed(streams))
            break; /* what is closed cannot be printed to */
    }
    *waited = model.all_closed(streams) || !plan.holds;
    for (int stream = 0; stream < streams; stream++)
        model.read[stream] |= !plan.holds && model.open[stream];
    return model;
}

std::string expected_log(const ChildPlan &plan, bool waited)
{
    const std::string pid = std::to_string(fake_pid);

    if (!waited || !WIFSIGNALED(plan.status))
        return "";
    return "4 waitpid(" + pid + ")=" + pid + ": process '/bin/fake' killed by signal " +
           std::to_string(WTERMSIG(plan.status));
}

void run(const ChildPlan &plan, bool both)
{
    const char *const argv[] = {"fake", nullptr};
    char *out = nullptr;
    char *err = nullptr;
    bool waited;
    const Model model = expect(plan, both ? 2 : 1, &waited);

    plan_child(plan);
    const int result = both ? fork_execv_getouterr(&out, &err, "/bin/fake", argv)
                            : fork_execv_getout(&out, "/bin/fake", argv);
    const OwnedText owned_out(out);
    const OwnedText owned_err(err);

    require(result == (WIFEXITED(plan.status) ? WEXITSTATUS(plan.status) : -1), "result");
    require_same(shown(out), model.text(0), "standard output");
    if (both)
        require_same(shown(err), model.text(1), "standard error");

    const Lines log = take_log();

    require_same(log.empty() ? "" : log.front(), expected_log(plan, waited), "log");
    require(log.size() <= 1, "one line");
}

} // namespace

} // namespace kolmo::testing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size)
{
    using namespace kolmo::testing;
    Input input(bytes, size);
    const bool both = input.number(2) == 0;

    record_log();
    run(read_plan(&input), both);
    end_child();
    return 0;
}
