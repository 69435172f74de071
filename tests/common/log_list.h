/*
 * log_list: the log's form for an argument list, called with arguments.
 */
#pragma once

#include <cstdarg>

#include "common/log.h"

namespace kolmo::testing
{

[[gnu::format(printf, 2, 3)]] inline void log_list(int priority, const char *format, ...)
{
    std::va_list arguments;

    va_start(arguments, format);
    log_vmessage(priority, format, arguments);
    va_end(arguments);
}

} // namespace kolmo::testing
