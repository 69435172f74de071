/*
 * log: the process-wide log function and where it leads.
 *
 * What is logged goes through log_message, with a syslog priority (0 emergency ... 7 debug)
 * and a printf format.  It leads to syslog or to the console, never ends the process and never fails.
 * Before log_init it is the console: priorities 0 to 6, on standard error and on standard output.
 *
 * The state is process-wide and unguarded, and all of these libraries log: one thread at a time may be in any
 * of them.  Nothing here preserves errno.
 */
#pragma once

#include <cstdarg>

#include <syslog.h>

namespace kolmo
{

/* A log function: priority, printf format, its arguments. */
using LogSink [[gnu::format(printf, 2, 3)]] = void (*)(int priority, const char *format, ...);

/* Its twin for an argument list that was gathered already; the list is the caller's to end. */
using LogListSink
    [[gnu::format(printf, 2, 0)]] = void (*)(int priority, const char *format, std::va_list arguments);

/*
 * The current log functions, switched together by log_init.
 *
 * Console: priorities up to the level are printed, each message with a newline after it (also one that
 * ends in a newline already), and flushed.  "stderr" prints to standard error, "console" and the state
 * before log_init to standard error and then to standard output; any other sink name prints nothing.
 *
 * Syslog: every message is sent, the mask set by log_set_level sorts out.  With LOG_TRACE_ID it starts with
 * the trace id, a colon and a blank, and is cut at 8191 characters; without, it is as long as it likes.
 *
 * The attribute is repeated for clang, which does not see the one in the type.
 */
[[gnu::format(printf, 2, 3)]] extern LogSink log_message;
[[gnu::format(printf, 2, 0)]] extern LogListSink log_vmessage;

/* An option bit of the program's own: every syslog message starts with a trace id. */
constexpr int LOG_TRACE_ID = 0x40;

/* Added to a level: the environment variable KOLMO_LOG_LEVEL may raise it. */
constexpr int LOG_LEVEL_FROM_ENVIRONMENT = 0x08;

/*
 * Choose where messages go, and how many of them; called again, it closes syslog and opens it anew.
 *
 * sink      null for syslog; otherwise "console" or "stderr", in any case, for the console.  Kept, not
 *           copied: it must live as long as messages are logged.  With a sink syslog is neither opened nor
 *           closed, and options and ident are not looked at.
 * level     as for log_set_level
 * facility  of syslog.h: LOG_MAIL, ...
 * options   LOG_CONS, LOG_PERROR, LOG_TRACE_ID in any union.  LOG_PID is always added; of the others none
 *           reaches openlog(3).
 * ident     the name in front of every syslog line, copied, cut at 63 characters; null for the name that
 *           the process was started by, without its folders
 *
 * With LOG_TRACE_ID the trace id is that of the environment variable KOLMO_LOG_TRACE_ID, cut at 63
 * characters.  Without one it is the first letter of the name that the process was started by, in upper case,
 * with the process id, and the variable is set to it for child processes.
 */
void log_init(const char *sink, int level, int facility, int options, const char *ident);

/*
 * Let priorities 0 to level through: on the console, and in syslog mode by setlogmask(3).
 *
 * Of level only the lowest three bits count, and LOG_LEVEL_FROM_ENVIRONMENT: with that bit a
 * KOLMO_LOG_LEVEL of one digit from 0 to 7 can raise the level, never lower it.  Other values of the
 * variable are ignored without a message.
 */
void log_set_level(int level);

/* The options of the latest log_init that led to syslog, LOG_PID with them; LOG_PID alone before that. */
[[nodiscard]] unsigned int log_get_options();

} // namespace kolmo
