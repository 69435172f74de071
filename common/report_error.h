/*
 * report_error: error reports for the person at the terminal.
 *
 * A report goes to standard error and then to standard output, so a terminal shows it twice.  It is
 * independent of log_message: nothing here reaches syslog.
 */
#pragma once

#include <cstdarg>

namespace kolmo
{

/*
 * A path whose last component and ": " stand in front of every report; null, as it is from the start, for
 * none.  Kept, not copied.  A switch for other programs: mail_responders_rebuild leaves it null.
 */
extern const char *error_program_path;

/*
 * Print the formatted message, of any length, and end the process when exit_code is not 0.
 *
 * exit_code  the status for exit(3); 0 to return
 * flag       0 or 1, without effect
 *
 * When errno is not 0 at the call, a line "System error <errno>: <its text>" follows the message, unless both
 * together need more than 4095 characters.  Callers who have no system error to tell of set errno to 0 first.
 * When memory for a message of more than 4095 characters runs out, it is cut there; when there is no memory
 * at all, "Can't allocate memory for error message" is printed instead.
 *
 * errno afterwards is what it was, unless writing failed or there was no memory at all.
 */
[[gnu::format(printf, 3, 4)]] void report_error(int exit_code, int flag, const char *format, ...);

/* report_error with exit code 1. */
[[noreturn, gnu::format(printf, 1, 2)]] void report_fatal(const char *format, ...);

/* report_error for an argument list that was gathered already; the list is the caller's to end. */
[[gnu::format(printf, 3, 0)]] void vreport_error(int exit_code, int flag, const char *format,
                                                 std::va_list arguments);

/*
 * The output step of report_error: the text as it stands to both streams, each with the prefix of
 * error_program_path, with a newline unless it ends in one, and flushed.  0 when exit_code is 0.
 */
int print_error_message(const char *text, int exit_code, int flag);

} // namespace kolmo
