#include "tests/support/log_capture.h"

#include <cstdarg>
#include <cstdio>
#include <utility>

#include <gtest/gtest.h>

namespace kolmo::testing
{

namespace
{

std::vector<std::string> lines;
const LogCapture *current;

[[gnu::format(printf, 2, 0)]] void capture_list(int priority, const char *format, std::va_list arguments)
{
    char text[16384];

    (void)std::vsnprintf(text, sizeof text, format, arguments);
    lines.push_back(std::to_string(priority) + ' ' + text);
    if (current->on_line)
        current->on_line();
}

[[gnu::format(printf, 2, 3)]] void capture(int priority, const char *format, ...)
{
    std::va_list arguments;

    va_start(arguments, format);
    capture_list(priority, format, arguments);
    va_end(arguments);
}

} // namespace

LogCapture::LogCapture() : saved_message_(log_message), saved_list_message_(log_vmessage)
{
    lines.clear();
    current = this;
    log_message = capture;
    log_vmessage = capture_list;
}

LogCapture::~LogCapture()
{
    log_message = saved_message_;
    log_vmessage = saved_list_message_;
    for (const std::string &line : lines)
        ADD_FAILURE() << "logged without being announced: " << line;
    lines.clear();
}

std::vector<std::string> LogCapture::take()
{
    return std::exchange(lines, {});
}

std::string LogCapture::take_one()
{
    const std::vector<std::string> taken = take();

    if (taken.size() != 1) {
        ADD_FAILURE() << "expected one log line, got " << taken.size();
        for (const std::string &line : taken)
            ADD_FAILURE() << "logged: " << line;
        return {};
    }
    return taken[0];
}

} // namespace kolmo::testing
