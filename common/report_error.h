/*
 * report_error: error reports for the person at the terminal.
 *
 * A report goes to standard error and then to standard output, so a terminal shows it twice.  It is
 * independent of log_message: nothing here reaches syslog.
 */
#ifndef KOLMO_COMMON_REPORT_ERROR_H
#define KOLMO_COMMON_REPORT_ERROR_H

#include <cstdarg>

namespace kolmo
{

[[gnu::format(printf, 3, 4)]] void report_error(int exit_code, int flag, const char *format, ...);

[[gnu::format(printf, 3, 0)]] void vreport_error(int exit_code, int flag, const char *format,
                                                 std::va_list arguments);

int print_error_message(const char *text, int exit_code, int flag);

} // namespace kolmo

#endif
