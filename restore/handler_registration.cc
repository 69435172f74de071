#include "restore/handler_registration.h"

#include <cstddef>
#include <cstdio>

#include "common/idn.h"
#include "common/log.h"
#include "common/owned.h"
#include "common/string_array.h"
#include "common/text.h"
#include "handlers_store/handlers_db.h"
#include "handlers_store/owned_handler_list.h"

namespace kolmo
{

namespace
{

/* Room for an address: 254 characters, the longest that SMTP can carry (RFC 5321, 4.5.3.1.3). */
constexpr std::size_t address_size = 255;

const char list_delimiters[] = ", ";

HandlerRecord autoresponder_handler()
{
    HandlerRecord record;

    handler_record_init(&record);
    record.priority = 90;
    record.type = 1;
    record.queue = 2;
    record.name = "autoresponder";
    record.executable = "/opt/qsx/handlers/hooks/autoresponder";
    record.context = "responder";
    record.enabled = true;
    return record;
}

int make_address(char (&address)[address_size], const char *mail_name, const char *domain)
{
    const OwnedText ascii_domain(idn_to_ascii(domain));

    if (ascii_domain == nullptr) {
        log_message(LOG_ERR, "idn_toascii() failed: %s", idn_strerror(idn_last_error));
        return -1;
    }
    if (std::snprintf(address, sizeof address, "%s@%s", mail_name, ascii_domain.get()) >=
        static_cast<int>(sizeof address)) {
        /* The closing newline is part of the text. */
        log_message(LOG_ERR, "domain name too long\n");
        return -1;
    }
    str_tolower(address);
    return 0;
}

/* One mailbox in all domains; the first failure ends it. */
int add_mailbox(HandlerList *list, const char *mail_name, char *const *domains)
{
    HandlerRecord record = autoresponder_handler();
    char address[address_size];

    record.address = address;
    for (; *domains != nullptr; domains++) {
        if (make_address(address, mail_name, *domains) != 0 || handler_list_append(list, &record) != 0)
            return -1;
    }
    return 0;
}

/*
 * All mailboxes in all domains; one that fails does not keep the next from being looked at.
 *
 * Returns 0; 1 when a mailbox failed; -1 when a list could not be split.  Each is logged.
 */
int add_mailboxes(HandlerList *list, const char *mail_names, const char *domains)
{
    int result = 0;
    const OwnedStringArray names(string_array_split(mail_names, list_delimiters));

    if (names == nullptr) {
        log_message(LOG_ERR, "Unable to split mailnames list");
        return -1;
    }

    const OwnedStringArray domain_names(string_array_split(domains, list_delimiters));

    if (domain_names == nullptr) {
        log_message(LOG_ERR, "Unable to split domains list");
        return -1;
    }
    for (char **name = names.get(); *name != nullptr; name++) {
        if (add_mailbox(list, *name, domain_names.get()) != 0)
            result = 1;
    }
    return result;
}

int apply(const HandlerList *list, int action)
{
    switch (action) {
    case HANDLER_ACTION_ADD:
        return handlers_db_run_actions(list, nullptr, handlers_db_insert_action);
    case HANDLER_ACTION_DELETE:
        return handlers_db_run_actions(list, nullptr, handlers_db_delete_action);
    default:
        return 0;
    }
}

} // namespace

int set_autoresponder_handlers(const char *mail_names, const char *domains, int action)
{
    OwnedHandlerList list;
    const int added = add_mailboxes(list.get(), mail_names, domains);

    if (added < 0)
        return -1;
    if (added > 0) {
        /* All or nothing: not even the records that were built are applied.  The log may need their memory.
         */
        list.reset();
        log_message(LOG_ERR, "Unable to make action for some autoresponder handlers");
        return -1;
    }
    return apply(list.get(), action);
}

} // namespace kolmo
