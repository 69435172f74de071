#include "tests/support/fake_syslog.h"

#include <cstdarg>
#include <cstdio>
#include <utility>

#include <syslog.h>

namespace
{

std::vector<std::string> calls;
std::vector<std::string> lines;
const char *ident_of_openlog = nullptr;
std::string closed_ident;
int mask = 0xff;

[[gnu::format(printf, 1, 2)]] void note_call(const char *format, ...)
{
    char text[256];
    std::va_list arguments;

    va_start(arguments, format);
    (void)std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    calls.emplace_back(text);
}

} // namespace

extern "C" {

void __wrap_openlog(const char *ident, int options, int facility)
{
    ident_of_openlog = ident;
    note_call("openlog 0x%02x %d %s", static_cast<unsigned int>(options), facility, ident);
}

void __wrap_closelog()
{
    closed_ident = ident_of_openlog != nullptr ? ident_of_openlog : "";
    ident_of_openlog = nullptr;
    note_call("closelog");
}

int __wrap_setlogmask(int new_mask)
{
    note_call("setlogmask 0x%02x", static_cast<unsigned int>(new_mask));
    return std::exchange(mask, new_mask);
}

[[gnu::format(printf, 2, 0)]] void __wrap_vsyslog(int priority, const char *format, std::va_list arguments)
{
    char text[16384];

    if ((LOG_MASK(LOG_PRI(priority)) & mask) == 0)
        return;
    (void)std::vsnprintf(text, sizeof text, format, arguments);
    lines.push_back(std::to_string(priority) + ' ' + text);
}

[[gnu::format(printf, 2, 3)]] void __wrap_syslog(int priority, const char *format, ...)
{
    std::va_list arguments;

    va_start(arguments, format);
    __wrap_vsyslog(priority, format, arguments);
    va_end(arguments);
}

/* The same two in an optimised program. */
[[gnu::format(printf, 3, 0)]] void __wrap___vsyslog_chk(int priority, int, const char *format,
                                                        std::va_list arguments)
{
    __wrap_vsyslog(priority, format, arguments);
}

[[gnu::format(printf, 3, 4)]] void __wrap___syslog_chk(int priority, int, const char *format, ...)
{
    std::va_list arguments;

    va_start(arguments, format);
    __wrap_vsyslog(priority, format, arguments);
    va_end(arguments);
}

} // extern "C"

namespace kolmo::testing
{

FakeSyslog::FakeSyslog()
{
    calls.clear();
    lines.clear();
    ident_of_openlog = nullptr;
    mask = 0xff;
}

FakeSyslog::~FakeSyslog()
{
    calls.clear();
    lines.clear();
}

std::vector<std::string> FakeSyslog::take_calls()
{
    return std::exchange(calls, {});
}

std::vector<std::string> FakeSyslog::take_lines()
{
    return std::exchange(lines, {});
}

std::string FakeSyslog::ident_at_close()
{
    return closed_ident;
}

std::string FakeSyslog::ident() const
{
    return ident_of_openlog != nullptr ? ident_of_openlog : "";
}

} // namespace kolmo::testing
