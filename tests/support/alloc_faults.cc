#include "tests/support/alloc_faults.h"

#include <cerrno>
#include <cstdarg>
#include <cstddef>

#include <gtest/gtest.h>

namespace
{

bool is_counting = false;
int calls_so_far = 0;
int failing_call = 0;

/* Counts one call; true when it is the one that has to fail. */
bool fails_now()
{
    if (!is_counting || ++calls_so_far != failing_call)
        return false;
    errno = ENOMEM;
    return true;
}

} // namespace

extern "C" {

void *__real_malloc(std::size_t size);
void *__real_calloc(std::size_t count, std::size_t size);
void *__real_realloc(void *memory, std::size_t size);
char *__real_strdup(const char *text);
char *__real_strndup(const char *text, std::size_t length);
[[gnu::format(printf, 2, 0)]] int __real_vasprintf(char **text, const char *format, std::va_list arguments);
[[gnu::format(printf, 3, 0)]] int __real___vasprintf_chk(char **text, int flag, const char *format,
                                                         std::va_list arguments);

void *__wrap_malloc(std::size_t size)
{
    return fails_now() ? nullptr : __real_malloc(size);
}

void *__wrap_calloc(std::size_t count, std::size_t size)
{
    return fails_now() ? nullptr : __real_calloc(count, size);
}

void *__wrap_realloc(void *memory, std::size_t size)
{
    return fails_now() ? nullptr : __real_realloc(memory, size);
}

char *__wrap_strdup(const char *text)
{
    return fails_now() ? nullptr : __real_strdup(text);
}

char *__wrap_strndup(const char *text, std::size_t length)
{
    return fails_now() ? nullptr : __real_strndup(text, length);
}

[[gnu::format(printf, 2, 0)]] int __wrap_vasprintf(char **text, const char *format, std::va_list arguments)
{
    return fails_now() ? -1 : __real_vasprintf(text, format, arguments);
}

/* The same in an optimised program. */
[[gnu::format(printf, 3, 0)]] int __wrap___vasprintf_chk(char **text, int flag, const char *format,
                                                         std::va_list arguments)
{
    return fails_now() ? -1 : __real___vasprintf_chk(text, flag, format, arguments);
}

} // extern "C"

namespace kolmo::testing
{

AllocFaults::AllocFaults(int nth)
{
    EXPECT_FALSE(is_counting) << "two at a time";
    calls_so_far = 0;
    failing_call = nth;
    is_counting = true;
}

AllocFaults::~AllocFaults()
{
    is_counting = false;
    EXPECT_GE(calls_so_far, failing_call) << "the call that had to fail never came";
}

int AllocFaults::calls() const
{
    return calls_so_far;
}

} // namespace kolmo::testing
