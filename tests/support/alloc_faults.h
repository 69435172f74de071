/*
 * alloc_faults: memory that runs out when a test says so.
 *
 * For test programs that use the target kolmo_alloc_faults, in which malloc, calloc, realloc, strdup, strndup
 * and vasprintf, called from anything that is linked statically, lead here (-Wl,--wrap=).  They do
 * what they always do, but while an AllocFaults lives they are counted, and one of them fails: null (or -1),
 * and errno ENOMEM.  What libraries allocate inside themselves, and operator new, is neither counted nor
 * failed.
 *
 *     result = without_memory(2, [&] { return xasprintf(...); });   // its second call fails
 *     // the test has failed unless there was a second call
 *
 * Where that is not enough, there is an AllocFaults for a scope; keep it to the calls under test, for
 * googletest's own calls would be counted too.
 */
#pragma once

namespace kolmo::testing
{

class AllocFaults
{
public:
    /* Fail the nth call from now on, 1 being the next.  One at a time. */
    explicit AllocFaults(int nth);

    /* Back to normal.  The test fails when the nth call never came. */
    ~AllocFaults();

    AllocFaults(const AllocFaults &) = delete;
    AllocFaults &operator=(const AllocFaults &) = delete;
};

/* What an operation gives whose nth call fails; errno is as the operation left it. */
template <typename Operation>
[[nodiscard]] auto without_memory(int nth, const Operation &operation)
{
    const AllocFaults faults(nth);

    return operation();
}

} // namespace kolmo::testing
