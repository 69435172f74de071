/*
 * checked_text: messages and statements that stand in tables, counted when they are compiled.
 *
 * Each is kept whole, as one literal, next to the parameter or step it belongs to.  The compiler cannot check
 * such a format against its arguments, nor a statement against its binds, where they are used; here the
 * "%s" and the "?" are counted when the literal is compiled, and its users take exactly that many.
 */
#pragma once

#include <cstddef>
#include <cstdio>
#include <type_traits>

#include "common/log.h"

namespace kolmo
{

/* The "%s" of a printf format; any other conversion counts as far too many. */
constexpr std::size_t count_texts(const char *format)
{
    std::size_t texts = 0;

    for (; *format != '\0'; format++) {
        if (*format == '%')
            texts += format[1] == 's' ? 1 : 1000;
    }
    return texts;
}

/* The "?" of a statement, which has none in a literal of its own. */
constexpr std::size_t count_parameters(const char *sql)
{
    std::size_t parameters = 0;

    for (; *sql != '\0'; sql++)
        parameters += *sql == '?' ? 1 : 0;
    return parameters;
}

template <std::size_t Number, auto Count>
class CheckedText
{
public:
    /* Implicit, so that a table row is written with the bare literal. */
    consteval CheckedText(const char *text) : text_(text)
    {
        if (Count(text) != Number)
            wrong_number();
    }

    /* A text that is only known, or made, when the program runs: not counted. */
    [[nodiscard]] static CheckedText made(const char *text) { return CheckedText(text, true); }

    [[nodiscard]] constexpr const char *get() const { return text_; }

private:
    CheckedText(const char *text, bool) : text_(text) {}

    /* Not constexpr: calling it is the compile-time error. */
    static void wrong_number() {}

    const char *text_;
};

/* A printf format with `Texts` times "%s" and no other conversion. */
template <std::size_t Texts>
using TextFormat = CheckedText<Texts, count_texts>;

/* A statement with `Parameters` times "?". */
template <std::size_t Parameters>
using Sql = CheckedText<Parameters, count_parameters>;

/* The places where a format is no literal: TextFormat has checked it. */
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

/* Logs at priority 3. */
template <typename... Texts>
void log_failure(std::type_identity_t<TextFormat<sizeof...(Texts)>> message, Texts... texts)
{
    static_assert((std::is_convertible_v<Texts, const char *> && ...));
    log_message(LOG_ERR, message.get(), texts...);
}

/* snprintf(3). */
template <typename... Texts>
int format_text(char *buffer, std::size_t size, std::type_identity_t<TextFormat<sizeof...(Texts)>> format,
                Texts... texts)
{
    static_assert((std::is_convertible_v<Texts, const char *> && ...));
    return std::snprintf(buffer, size, format.get(), texts...);
}

#pragma GCC diagnostic pop

} // namespace kolmo
