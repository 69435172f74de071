/*
 * alloc_faults: memory that runs out when a test says so.
 *
 * For test programs that use the target kolmo_alloc_faults, in which malloc, calloc, realloc, strdup,
 * strndup, vasprintf and free, called from anything that is linked statically, lead here (-Wl,--wrap=).  They
 * do what they always do, but while an AllocFaults lives they are counted, and one of them fails: null (or
 * -1), and errno ENOMEM.  What libraries allocate inside themselves, and operator new, is neither counted nor
 * failed.  And free does not keep errno meanwhile, which POSIX has promised only lately.
 *
 *     result = without_memory(2, [&] { return xasprintf(...); });   // its second call fails
 *     // the test has failed unless there was a second call
 *
 * Where that is not enough, there is an AllocFaults for a scope; keep it to the calls under test, for
 * googletest's own calls would be counted too.
 */
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

#include "tests/support/log_capture.h"

namespace kolmo::testing
{

class AllocFaults
{
public:
    /* Fail the nth call from now on, 1 being the next; none if it is 0.  One at a time. */
    explicit AllocFaults(int nth);

    /* Back to normal.  The test fails when the nth call never came. */
    ~AllocFaults();

    AllocFaults(const AllocFaults &) = delete;
    AllocFaults &operator=(const AllocFaults &) = delete;

    /* How much of what was allocated since the construction is not freed yet. */
    [[nodiscard]] std::size_t held() const;

    /* What was freed since then, in order. */
    [[nodiscard]] std::vector<const void *> freed() const;
};

/* What an operation gives, and how much it holds when it logs its last line. */
template <typename Operation>
[[nodiscard]] std::pair<int, std::size_t> held_at_last_line(LogCapture *log, const Operation &operation)
{
    std::pair<int, std::size_t> seen = {};
    const AllocFaults faults(0);

    log->on_line = [&] {
        seen.second = faults.held();
    };
    seen.first = operation();
    log->on_line = nullptr;
    return seen;
}

/* What an operation gives whose nth call fails; errno is as the operation left it. */
template <typename Operation>
[[nodiscard]] auto without_memory(int nth, const Operation &operation)
{
    const AllocFaults faults(nth);

    return operation();
}

} // namespace kolmo::testing
