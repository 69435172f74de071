/*
 * fresh_process: a test body in a process of its own.
 *
 * The panel configuration file is loaded once per process and kept.  A test in which loading succeeds
 * runs its body here, so that every such test, and every test after it, starts without a loaded file.
 * What the body expects and does not get fails the test.
 */
#pragma once

#include <functional>

namespace kolmo::testing
{

void in_fresh_process(const std::function<void()> &body);

} // namespace kolmo::testing
