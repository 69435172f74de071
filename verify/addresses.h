/*
 * addresses: how the stores spell the addresses of the panel's mailboxes, and what a rebuild cannot spell.
 */
#pragma once

#include <string>
#include <string_view>

namespace kolmo
{

/* A to Z in lower case, every other byte as it is: what both stores do to an address. */
[[nodiscard]] std::string ascii_lower(std::string_view text);

/* A domain in its ASCII form and in lower case, as the handlers store has it; empty when it has none. */
[[nodiscard]] std::string handler_domain(const std::string &name);

[[nodiscard]] bool has_capitals(std::string_view text);

/* Whether a character needs four bytes of UTF-8, which three-byte UTF-8 cannot hold. */
[[nodiscard]] bool is_beyond_utf8mb3(std::string_view text);

/* The text as three-byte UTF-8 leaves it: a question mark for each character beyond. */
[[nodiscard]] std::string as_utf8mb3(std::string_view text);

/* What stands behind the last @, all of it without one. */
[[nodiscard]] std::string_view domain_of(std::string_view address);

} // namespace kolmo
