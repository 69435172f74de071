#include "common/string_array.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/log.h"
#include "common/owned.h"

namespace kolmo
{

namespace
{

void log_system_error()
{
    log_message(LOG_ERR, "System error: %s\n", std::strerror(errno));
}

std::size_t count_entries(const OwnedStringArray &array)
{
    std::size_t count = 0;

    if (array != nullptr)
        while (array[count] != nullptr)
            count++;
    return count;
}

/* Room for count entries, the next one, its null, and one to spare. */
[[nodiscard]] bool reserve_next(OwnedStringArray &array, std::size_t count)
{
    void *grown = std::realloc(static_cast<void *>(array.get()), (count + 3) * sizeof(char *));

    if (grown == nullptr) {
        log_system_error();
        return false;
    }
    (void)array.release(); /* realloc has freed it, or it is the same */
    array.reset(static_cast<char **>(grown));
    return true;
}

/* On failure array is unchanged when it could not grow, null when it has been freed. */
[[nodiscard]] bool append(OwnedStringArray &array, const char *text)
{
    const std::size_t count = count_entries(array);

    if (!reserve_next(array, count))
        return false;
    array[count] = strdup(text);
    if (array[count] == nullptr) { /* the slot closes the array, so it can be freed as usual */
        log_system_error();
        array.reset();
        return false;
    }
    array[count + 1] = nullptr;
    return true;
}

/* Takes text apart; false after a failed append. */
[[nodiscard]] bool append_tokens(OwnedStringArray &array, char *text, const char *delimiters)
{
    for (char *token = text;;) {
        token += std::strspn(token, delimiters);
        char *end = std::strpbrk(token, delimiters);
        /* What follows the last delimiter counts even when it is empty (docs/compatibility.md). */
        if (end == nullptr)
            return append(array, token);
        *end = '\0';
        if (!append(array, token))
            return false;
        token = end + 1;
    }
}

} // namespace

StringArray string_array_split(const char *text, const char *delimiters)
{
    const OwnedText copy(strdup(text));
    OwnedStringArray array;

    if (copy == nullptr) {
        log_system_error();
        return nullptr;
    }
    if (!append_tokens(array, copy.get(), delimiters)) {
        log_message(LOG_ERR, "Unable to add string into array");
        return nullptr;
    }
    return array.release();
}

StringArray string_array_add(StringArray array, const char *text)
{
    OwnedStringArray owned(array);
    const bool added = append(owned, text);
    StringArray kept = owned.release(); /* an array that could not grow stays the caller's */

    return added ? kept : nullptr;
}

void string_array_free(StringArray array)
{
    if (array == nullptr)
        return;
    for (char **entry = array; *entry != nullptr; entry++)
        std::free(*entry);
    std::free(static_cast<void *>(array));
}

} // namespace kolmo
