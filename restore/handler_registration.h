/*
 * handler_registration: the `autoresponder` handler of every mailbox that answers automatically.
 */
#pragma once

namespace kolmo
{

constexpr int HANDLER_ACTION_ADD = 2;
constexpr int HANDLER_ACTION_DELETE = 3;

/*
 * Adds (HANDLER_ACTION_ADD) or deletes (HANDLER_ACTION_DELETE) the handler of every mailbox in every domain,
 * in one transaction on the handlers store, which is opened and closed for it; with any other action
 * nothing is applied.
 *
 * mail_names, domains  lists separated by commas and blanks; domains are UTF-8 and become their ASCII form
 * Returns 0; -1 as the driver (handlers_db_run_actions) failed, or with nothing applied after, at priority 3,
 * string_array_split's lines and "Unable to split mailnames list" or "Unable to split domains list"; or after
 * "idn_toascii() failed: %s", "domain name too long\n" (an address of 255 characters or more) or
 * handler_list_append's lines, for each mailbox, and then "Unable to make action for some autoresponder
 * handlers".
 */
[[nodiscard]] int set_autoresponder_handlers(const char *mail_names, const char *domains, int action);

} // namespace kolmo
