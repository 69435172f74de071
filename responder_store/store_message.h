/*
 * store_message: log messages that stand in tables, checked when they are compiled.
 *
 * Messages are kept whole, as one literal each, next to the parameter or statement they belong to.  The
 * compiler cannot check such a format against its arguments where it is used; Message counts its "%s" when
 * it is compiled instead, and log_failure takes exactly that many texts.
 */
#ifndef KOLMO_RESPONDER_STORE_STORE_MESSAGE_H
#define KOLMO_RESPONDER_STORE_STORE_MESSAGE_H

#include <cstddef>
#include <type_traits>

#include "common/log.h"

namespace kolmo
{

template <std::size_t Texts>
class Message
{
public:
    /* Implicit, so that a table row is written with the bare literal. */
    consteval Message(const char *format) : format_(format)
    {
        if (count_texts(format) != Texts)
            wrong_number_of_texts();
    }

    [[nodiscard]] constexpr const char *format() const { return format_; }

private:
    /* Any conversion but %s counts as far too many. */
    static consteval std::size_t count_texts(const char *format)
    {
        std::size_t texts = 0;

        for (const char *at = format; *at != '\0'; at++) {
            if (*at != '%')
                continue;
            at++;
            texts += *at == 's' ? 1 : Texts + 1;
            if (*at == '\0')
                break;
        }
        return texts;
    }

    /* Not constexpr: calling it is the compile-time error. */
    static void wrong_number_of_texts() {}

    const char *format_;
};

/* Logs at priority 3. */
template <typename... Texts>
void log_failure(std::type_identity_t<Message<sizeof...(Texts)>> message, Texts... texts)
{
    static_assert((std::is_convertible_v<Texts, const char *> && ...));

    /* The one place where a format is no literal: Message has checked it. */
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    log_message(LOG_ERR, message.format(), texts...);
#pragma GCC diagnostic pop
}

} // namespace kolmo

#endif
