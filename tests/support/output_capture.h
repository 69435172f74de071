/*
 * output_capture: what code under test writes to the real descriptors 1 and 2.
 *
 * Nothing is flushed on the code's behalf: what it leaves in a stdio buffer is missing.  EXPECT and ASSERT
 * belong outside, for googletest complains on standard output as well.
 */
#ifndef KOLMO_TESTS_SUPPORT_OUTPUT_CAPTURE_H
#define KOLMO_TESTS_SUPPORT_OUTPUT_CAPTURE_H

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

/* Runs code; what it wrote to both streams, in the order in which it arrived. */
std::string interleaved_output_of(const std::function<void()> &code);

} // namespace kolmo::testing

#endif
