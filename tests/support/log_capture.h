/*
 * log_capture: a test hears every line that is logged, and an unannounced one fails it.
 *
 * From its construction on log_message leads here; lines are kept as "priority text".  take() hands out
 * what was logged so far; what nobody took by the end of the test is a failure.
 */
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "common/log.h"

namespace kolmo::testing
{

class LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    /* The lines logged since the last take, oldest first: "3 Unable to ...". */
    std::vector<std::string> take();

    /* The same, expected to be exactly one line (none or several fail the test): that line. */
    std::string take_one();

    /* Called at each line: what has been done before it is logged? */
    std::function<void()> on_line;

private:
    LogSink saved_message_;
    LogListSink saved_list_message_;
};

} // namespace kolmo::testing
