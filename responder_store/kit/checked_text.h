/*
 * checked_text: messages and statements that stand in tables, counted when they are compiled.
 *
 * Each is kept whole, as one literal, next to the parameter or step it belongs to.  The compiler cannot check
 * such a format against its arguments, nor a statement against its binds, where they are used; here the
 * "%s" and the "?" are counted when the literal is compiled, and its users take exactly that many.
 */
#ifndef KOLMO_RESPONDER_STORE_KIT_CHECKED_TEXT_H
#define KOLMO_RESPONDER_STORE_KIT_CHECKED_TEXT_H

#include <cstddef>
#include <cstdio>
#include <type_traits>

#include "common/log.h"

namespace kolmo
{

/* A printf format with `Texts` times "%s" and no other conversion. */
template <std::size_t Texts>
class TextFormat
{
public:
    /* Implicit, so that a table row is written with the bare literal. */
    consteval TextFormat(const char *format) : format_(format)
    {
        if (count_texts(format) != Texts)
            wrong_number_of_texts();
    }

    [[nodiscard]] constexpr const char *get() const { return format_; }

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

/* A statement with `Parameters` times "?", none of them in a literal of its own. */
template <std::size_t Parameters>
class Sql
{
public:
    consteval Sql(const char *sql) : sql_(sql)
    {
        std::size_t parameters = 0;

        for (const char *at = sql; *at != '\0'; at++)
            parameters += *at == '?' ? 1 : 0;
        if (parameters != Parameters)
            wrong_number_of_parameters();
    }

    /* A statement that is only known, or made, when the program runs. */
    [[nodiscard]] static Sql made(const char *sql) { return Sql(sql, Made{}); }

    [[nodiscard]] constexpr const char *get() const { return sql_; }

private:
    struct Made {
    };
    Sql(const char *sql, Made) : sql_(sql) {}

    /* Not constexpr: calling it is the compile-time error. */
    static void wrong_number_of_parameters() {}

    const char *sql_;
};

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

#endif
