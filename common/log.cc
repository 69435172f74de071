#include "common/log.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <strings.h>
#include <unistd.h>

namespace kolmo
{

namespace
{

constexpr int level_bits = 0x07;

/* What openlog may see: the other bits are the program's own, or mean something else to another C library. */
constexpr unsigned int syslog_options = LOG_PID | LOG_CONS | LOG_PERROR;

struct LogState {
    int level = LOG_INFO;
    unsigned int options = LOG_PID;
    int facility = LOG_MAIL;
    const char *sink = nullptr; /* null: syslog, or log_init was not called yet */
    char trace_id[64] = "";
    char ident[64] = ""; /* syslog keeps pointing here */
};

LogState state;

[[gnu::format(printf, 2, 0)]] void print_line(std::FILE *stream, const char *format, std::va_list arguments)
{
    (void)std::vfprintf(stream, format, arguments);
    (void)std::fputc('\n', stream);
    (void)std::fflush(stream);
}

[[gnu::format(printf, 2, 0)]] void console_list(int priority, const char *format, std::va_list arguments)
{
    const bool to_both = state.sink == nullptr || strcasecmp(state.sink, "console") == 0;

    if (state.level < priority)
        return;
    if (!to_both && strcasecmp(state.sink, "stderr") != 0)
        return;

    std::va_list again;
    va_copy(again, arguments);
    print_line(stderr, format, arguments);
    if (to_both)
        print_line(stdout, format, again);
    va_end(again);
}

[[gnu::format(printf, 2, 3)]] void console_message(int priority, const char *format, ...)
{
    std::va_list arguments;

    va_start(arguments, format);
    console_list(priority, format, arguments);
    va_end(arguments);
}

[[gnu::format(printf, 2, 0)]] void send_traced(int priority, const char *format, std::va_list arguments)
{
    char text[8192];
    const auto start = static_cast<std::size_t>(std::snprintf(text, sizeof text, "%s: ", state.trace_id));

    (void)std::vsnprintf(text + start, sizeof text - start, format, arguments);
    syslog(priority, "%s", text);
}

[[gnu::format(printf, 2, 0)]] void syslog_list(int priority, const char *format, std::va_list arguments)
{
    if ((state.options & LOG_TRACE_ID) != 0 && state.trace_id[0] != '\0')
        send_traced(priority, format, arguments);
    else
        vsyslog(priority, format, arguments);
}

[[gnu::format(printf, 2, 3)]] void syslog_message(int priority, const char *format, ...)
{
    std::va_list arguments;

    va_start(arguments, format);
    syslog_list(priority, format, arguments);
    va_end(arguments);
}

void choose_trace_id()
{
    const char *inherited = std::getenv("KOLMO_LOG_TRACE_ID");

    if (inherited != nullptr && inherited[0] != '\0') {
        (void)std::snprintf(state.trace_id, sizeof state.trace_id, "%s", inherited);
        return;
    }
    (void)std::snprintf(state.trace_id, sizeof state.trace_id, "%c%ld",
                        std::toupper(static_cast<unsigned char>(program_invocation_short_name[0])),
                        static_cast<long>(getpid()));
    (void)setenv("KOLMO_LOG_TRACE_ID", state.trace_id, 1);
}

void open_syslog(int options, const char *ident)
{
    closelog(); /* before the ident changes under it */
    state.options = static_cast<unsigned int>(options) | LOG_PID;
    (void)std::snprintf(state.ident, sizeof state.ident, "%s",
                        ident != nullptr ? ident : program_invocation_short_name);
    if ((state.options & LOG_TRACE_ID) != 0)
        choose_trace_id();
    openlog(state.ident, static_cast<int>(state.options & syslog_options), state.facility);
}

/* The level that KOLMO_LOG_LEVEL asks for, 0 when it does not ask properly. */
int level_from_environment()
{
    const char *value = std::getenv("KOLMO_LOG_LEVEL");

    if (value == nullptr || std::strlen(value) != 1 || value[0] < '0' || value[0] > '7')
        return 0;
    return value[0] - '0';
}

} // namespace

LogSink log_message = console_message;
LogListSink log_vmessage = console_list;

void log_init(const char *sink, int level, int facility, int options, const char *ident)
{
    state.sink = sink;
    state.facility = facility;
    if (sink != nullptr) {
        log_message = console_message;
        log_vmessage = console_list;
    } else {
        open_syslog(options, ident);
        log_message = syslog_message;
        log_vmessage = syslog_list;
    }
    log_set_level(level);
}

void log_set_level(int level)
{
    state.level = level & level_bits;
    if ((level & LOG_LEVEL_FROM_ENVIRONMENT) != 0)
        state.level = std::max(state.level, level_from_environment());
    if (state.sink == nullptr)
        (void)setlogmask(LOG_UPTO(state.level));
}

unsigned int log_get_options()
{
    return state.options;
}

} // namespace kolmo
