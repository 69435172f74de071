/*
 * global_address: the words that stand for the address of a handler for no single recipient.
 */
#pragma once

#include <cstring>

namespace kolmo
{

/* Compared exactly. */
constexpr char address_all[] = "all";
constexpr char address_all_recipients[] = "all-recipients";

/* Whether `address` is one of the two words. */
[[nodiscard]] inline bool is_global_address(const char *address)
{
    return std::strcmp(address, address_all) == 0 || std::strcmp(address, address_all_recipients) == 0;
}

} // namespace kolmo
