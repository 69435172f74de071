/*
 * fresh_process: a test body in a process of its own.
 *
 * The panel configuration file is loaded once per process and kept.  A test in which loading succeeds
 * runs its body here, so that every such test, and every test after it, starts without a loaded file.
 * What the body expects and does not get fails the test.
 */
#ifndef KOLMO_TESTS_PANEL_FRESH_PROCESS_H
#define KOLMO_TESTS_PANEL_FRESH_PROCESS_H

#include <functional>

namespace kolmo::testing
{

void in_fresh_process(const std::function<void()> &body);

} // namespace kolmo::testing

#endif
