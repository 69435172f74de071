#include "common/text.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "common/log.h"
#include "common/report_error.h"

namespace kolmo
{

char *xasprintf(const char *format, ...)
{
    char *text = nullptr;
    std::va_list arguments;

    va_start(arguments, format);
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    if (length < 0)
        report_fatal("Cannot allocate memory: %s", std::strerror(errno));
    return text;
}

void str_tolower(char *text)
{
    if (text == nullptr)
        return;
    for (; *text != '\0'; text++)
        *text = static_cast<char>(std::tolower(static_cast<unsigned char>(*text)));
}

char *strdup_lower(const char *text)
{
    if (text == nullptr)
        return nullptr;

    char *copy = strdup(text);
    if (copy == nullptr) {
        log_message(LOG_ERR, "System error: %s\n", std::strerror(errno));
        return nullptr;
    }
    str_tolower(copy);
    return copy;
}

bool read_line(std::FILE *file, OwnedText &buffer, std::size_t &size)
{
    char *text = buffer.release(); /* getline may move it */
    const bool was_read = getline(&text, &size, file) >= 0;

    buffer.reset(text);
    return was_read;
}

} // namespace kolmo
