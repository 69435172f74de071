/*
 * output_capture: what code under test writes to the real descriptors 1 and 2.
 *
 * Nothing is flushed on the code's behalf: what it leaves in a stdio buffer is missing.  EXPECT and ASSERT
 * belong outside, for googletest complains on standard output as well.
 */
#pragma once

#include <functional>
#include <string>

namespace kolmo::testing
{

struct Output {
    std::string err; /* standard error */
    std::string out; /* standard output */
};

/* Runs code; what it wrote, stream by stream. */
Output output_of(const std::function<void()> &code);

/*
 * For the code of a death test: from here on whoever writes to standard output dies of SIGPIPE.  What the
 * test then finds on standard error was written before that.
 */
void break_standard_output();

} // namespace kolmo::testing
