/*
 * handler_registration: the `autoresponder` handler of every mailbox that answers automatically.
 */
#ifndef KOLMO_RESTORE_HANDLER_REGISTRATION_H
#define KOLMO_RESTORE_HANDLER_REGISTRATION_H

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
 * Returns 0; -1 when a record could not be built, and then nothing at all is applied, or as the driver
 * (handlers_db_run_actions) failed.  Logged at priority 3: "Unable to split mailnames list", "Unable to split
 * domains list", "idn_toascii() failed: %s", "domain name too long\n" (an address of 255 characters or
 * more), and, for the latter two and for want of memory (handler_list_append's and string_array_split's own
 * lines come before), "Unable to make action for some autoresponder handlers".
 */
[[nodiscard]] int set_autoresponder_handlers(const char *mail_names, const char *domains, int action);

} // namespace kolmo

#endif
