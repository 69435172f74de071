#include "tests/support/alloc_faults.h"

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <set>

#include <gtest/gtest.h>

namespace
{

bool is_counting = false;
int calls_so_far = 0;
int failing_call = 0;
std::set<const void *> held_memory;
std::vector<const void *> freed_memory;

/* Counts one call; true when it is the one that has to fail. */
bool fails_now()
{
    if (!is_counting || ++calls_so_far != failing_call)
        return false;
    errno = ENOMEM;
    return true;
}

template <typename T>
T *note(T *memory)
{
    if (is_counting && memory != nullptr)
        held_memory.insert(memory);
    return memory;
}

void note_end(const void *memory)
{
    if (!is_counting || memory == nullptr)
        return;
    held_memory.erase(memory);
    freed_memory.push_back(memory);
}

/* One of vasprintf's ways. */
template <typename Print>
int print(char **text, const Print &real)
{
    const int length = fails_now() ? -1 : real();

    if (length >= 0)
        (void)note(*text);
    return length;
}

} // namespace

extern "C" {

void *__real_malloc(std::size_t size);
void *__real_calloc(std::size_t count, std::size_t size);
void *__real_realloc(void *memory, std::size_t size);
void __real_free(void *memory);
char *__real_strdup(const char *text);
char *__real_strndup(const char *text, std::size_t length);
[[gnu::format(printf, 2, 0)]] int __real_vasprintf(char **text, const char *format, std::va_list arguments);
[[gnu::format(printf, 3, 0)]] int __real___vasprintf_chk(char **text, int flag, const char *format,
                                                         std::va_list arguments);

void *__wrap_malloc(std::size_t size)
{
    return fails_now() ? nullptr : note(__real_malloc(size));
}

void *__wrap_calloc(std::size_t count, std::size_t size)
{
    return fails_now() ? nullptr : note(__real_calloc(count, size));
}

void *__wrap_realloc(void *memory, std::size_t size)
{
    if (fails_now())
        return nullptr;

    void *const moved = __real_realloc(memory, size);

    if (is_counting && moved != nullptr)
        held_memory.erase(memory);
    return note(moved);
}

void __wrap_free(void *memory)
{
    note_end(memory);
    __real_free(memory);
    if (is_counting)
        errno = EBADF;
}

char *__wrap_strdup(const char *text)
{
    return fails_now() ? nullptr : note(__real_strdup(text));
}

char *__wrap_strndup(const char *text, std::size_t length)
{
    return fails_now() ? nullptr : note(__real_strndup(text, length));
}

[[gnu::format(printf, 2, 0)]] int __wrap_vasprintf(char **text, const char *format, std::va_list arguments)
{
    return print(text, [&] { return __real_vasprintf(text, format, arguments); });
}

/* The same in an optimised program. */
[[gnu::format(printf, 3, 0)]] int __wrap___vasprintf_chk(char **text, int flag, const char *format,
                                                         std::va_list arguments)
{
    return print(text, [&] { return __real___vasprintf_chk(text, flag, format, arguments); });
}

} // extern "C"

namespace kolmo::testing
{

AllocFaults::AllocFaults(int nth)
{
    EXPECT_FALSE(is_counting) << "two at a time";
    calls_so_far = 0;
    failing_call = nth;
    held_memory.clear();
    freed_memory.clear();
    is_counting = true;
}

AllocFaults::~AllocFaults()
{
    is_counting = false;
    EXPECT_GE(calls_so_far, failing_call) << "the call that had to fail never came";
}

std::size_t AllocFaults::held() const
{
    return held_memory.size();
}

std::vector<const void *> AllocFaults::freed() const
{
    return freed_memory;
}

} // namespace kolmo::testing
