/*
 * log: the process-wide log function and where it leads.
 *
 * Everything that is reported goes through log_message, with a syslog priority (0 emergency ... 7 debug)
 * and a printf format.  It leads to syslog or to the console, never ends the process and never fails.
 * Before log_init it is the console: priorities 0 to 6, on standard error and on standard output.
 *
 * The state is process-wide and unguarded: one thread.
 */
#ifndef KOLMO_COMMON_LOG_H
#define KOLMO_COMMON_LOG_H

#include <cstdarg>

#include <syslog.h>

namespace kolmo
{

/* A log function: priority, printf format, its arguments. */
using LogSink = void (*)(int priority, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* Its twin for an argument list that was gathered already. */
using LogListSink = void (*)(int priority, const char *format, std::va_list arguments)
    __attribute__((format(printf, 2, 0)));

/* The current log functions, switched together by log_init. */
extern LogSink log_message;
extern LogListSink log_vmessage;

/* An option bit of the program's own (the others are syslog's): every syslog message starts with a trace id. */
constexpr int LOG_TRACE_ID = 0x40;

/* Added to a level: the environment variable KOLMO_LOG_LEVEL may raise it. */
constexpr int LOG_LEVEL_FROM_ENVIRONMENT = 0x08;

} // namespace kolmo

#endif
