#include "common/report_error.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/owned.h"

namespace kolmo
{

namespace
{

/* Room for a message with its system error; a longer message gets room of its own and stands alone. */
constexpr std::size_t message_size = 4096;

/* Null when there is no memory; a message that cannot be had whole is cut. */
[[gnu::format(printf, 1, 0)]] OwnedText format_message(const char *format, std::va_list arguments)
{
    OwnedText message(static_cast<char *>(std::malloc(message_size)));
    std::va_list again;

    if (message == nullptr)
        return nullptr;
    message[0] = '\0';
    va_copy(again, arguments);
    const int needed = std::vsnprintf(message.get(), message_size, format, arguments);
    if (needed >= static_cast<int>(message_size)) {
        const std::size_t size = static_cast<std::size_t>(needed) + 1;
        OwnedText longer(static_cast<char *>(std::malloc(size)));

        if (longer != nullptr) {
            (void)std::vsnprintf(longer.get(), size, format, again);
            message = std::move(longer);
        }
    }
    va_end(again);
    return message;
}

/* A cut system error would mislead: it goes out whole or not at all. */
void append_system_error(char *message, int error)
{
    const std::size_t length = std::strlen(message);

    if (length >= message_size)
        return;

    const std::size_t room = message_size - length;
    const int needed =
        std::snprintf(message + length, room, "\nSystem error %d: %s", error, std::strerror(error));
    if (static_cast<std::size_t>(needed) >= room) /* or it failed */
        message[length] = '\0';
}

void print_to(std::FILE *stream, const char *text)
{
    const std::size_t length = std::strlen(text);

    /* basename(3) of the GNU kind: it never writes to its argument. */
    if (error_program_path != nullptr)
        (void)std::fprintf(stream, "%s: ", basename(error_program_path));
    (void)std::fputs(text, stream);
    if (length == 0 || text[length - 1] != '\n')
        (void)std::fputc('\n', stream);
    (void)std::fflush(stream);
}

} // namespace

const char *error_program_path = nullptr;

int print_error_message(const char *text, int exit_code, int flag)
{
    (void)flag;
    print_to(stderr, text);
    print_to(stdout, text);
    if (exit_code != 0)
        std::exit(exit_code);
    return 0;
}

void vreport_error(int exit_code, int flag, const char *format, std::va_list arguments)
{
    const int error = errno;
    const OwnedText message = format_message(format, arguments);

    if (message == nullptr) {
        (void)print_error_message("Can't allocate memory for error message", exit_code, flag);
        return;
    }
    errno = error;
    if (error != 0)
        append_system_error(message.get(), error);
    (void)print_error_message(message.get(), exit_code, flag);
}

void report_error(int exit_code, int flag, const char *format, ...)
{
    std::va_list arguments;

    va_start(arguments, format);
    vreport_error(exit_code, flag, format, arguments);
    va_end(arguments);
}

void report_fatal(const char *format, ...)
{
    std::va_list arguments;

    va_start(arguments, format);
    vreport_error(0, 0, format, arguments);
    va_end(arguments);
    std::exit(EXIT_FAILURE);
}

} // namespace kolmo
