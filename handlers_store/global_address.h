/*
 * global_address: the words that stand for the address of a handler for no single recipient.
 */
#ifndef KOLMO_HANDLERS_STORE_GLOBAL_ADDRESS_H
#define KOLMO_HANDLERS_STORE_GLOBAL_ADDRESS_H

namespace kolmo
{

/* Compared exactly. */
constexpr char address_all[] = "all";
constexpr char address_all_recipients[] = "all-recipients";

/* Whether `address` is one of the two words. */
[[nodiscard]] bool is_global_address(const char *address);

} // namespace kolmo

#endif
