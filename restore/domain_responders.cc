#include "restore/domain_responders.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/log.h"
#include "common/owned.h"
#include "common/string_array.h"
#include "panel/panel_db.h"
#include "responder_store/responder_db.h"
#include "restore/domain_query.h"
#include "restore/handler_registration.h"
#include "restore/responder_list.h"
#include "restore/run_handles.h"

namespace kolmo
{

namespace
{

using OwnedResponderList = OwnedList<ResponderList, responder_list_init, responder_list_free>;

void free_array(char **names)
{
    std::free(static_cast<void *>(names));
}

/* File names in the server's order. */
class FileNames
{
public:
    ~FileNames()
    {
        for (int i = 0; i < count_; i++)
            std::free(get()[i]);
    }

    [[nodiscard]] char **get() const noexcept { return names_.get(); }
    [[nodiscard]] int count() const noexcept { return count_; }

    [[nodiscard]] int reserve(int capacity);
    [[nodiscard]] int add(const char *name);

private:
    std::unique_ptr<char *[], Release<free_array>> names_;
    int capacity_ = 0;
    int count_ = 0;
};

int FileNames::reserve(int capacity)
{
    void *const names =
        std::realloc(static_cast<void *>(names_.get()), static_cast<std::size_t>(capacity) * sizeof(char *));

    if (names == nullptr)
        return -1;
    (void)names_.release();
    names_.reset(static_cast<char **>(names));
    capacity_ = capacity;
    return 0;
}

/* Grows as soon as the last place is taken, not when one is missing. */
int FileNames::add(const char *name)
{
    if (count_ + 1 == capacity_ && reserve(capacity_ * 2) != 0)
        return -1;

    char *const copy = strdup(name);

    if (copy == nullptr)
        return -1;
    get()[count_++] = copy;
    return 0;
}

int read_attachments(MYSQL_RES *rows, FileNames *names)
{
    constexpr int first_capacity = 128;

    if (names->reserve(first_capacity) != 0) {
        log_message(LOG_ERR, "Unable to allocate memory for responder attachments");
        return -1;
    }
    while (const MYSQL_ROW row = mysql_fetch_row(rows)) {
        if (names->add(panel_text(row[0])) != 0) {
            log_message(LOG_ERR, "Unable to reallocate memory for responder attachments");
            return -1;
        }
    }
    return 0;
}

/* A responder with several forward addresses comes several times; the last row is found first.  The message
   of what memory did not suffice for, or null. */
const char *read_responders(MYSQL_RES *rows, ResponderList *list)
{
    while (const MYSQL_ROW row = mysql_fetch_row(rows)) {
        OwnedResponderRecord record(responder_record_from_row(row));

        if (record == nullptr)
            return "Failed to store next autoresponder: out of memory";
        if (responder_list_add(list, record.get()) == nullptr)
            return "Failed to add next autoresponder to list: out of memory";
        (void)record.release();
    }
    return nullptr;
}

int query_responders(MYSQL *panel, const char *mail_ids, ResponderList *list)
{
    char query[query_size];

    /* Not tested for its length: the server's complaint about a query that was cut is the message for it. */
    (void)std::snprintf(
        query, sizeof query,
        "SELECT mail_resp.id, mail_resp.mn_id, mail_resp.resp_name, mail_resp.keystr,mail_resp.key_where, "
        "mail_resp.subject, mail_resp.reply_to, mail_resp.content_type, mail_resp.charset, mail_resp.text, "
        "mail_resp.resp_on, mail_resp.ans_freq, mail_resp.mem_limit, resp_forward.address, mail.mail_name "
        "FROM mail_resp LEFT JOIN resp_forward ON resp_forward.rn_id=mail_resp.id LEFT JOIN mail ON "
        "mail_resp.mn_id=mail.id WHERE mail_resp.resp_name='default' AND mail_resp.mn_id IN (%s)",
        mail_ids);

    PanelResult rows = panel_select(panel, query, std::strlen(query));

    if (rows == nullptr) {
        log_message(LOG_ERR, "Unable to query autoresponders: %s", mysql_error(panel));
        return -1;
    }

    const char *const failure = read_responders(rows.get(), list);

    if (failure == nullptr)
        return 0;
    rows.reset();
    responder_list_free(list); /* first: the log may need the memory */
    log_message(LOG_ERR, "%s", failure);
    return -1;
}

/* The mailboxes to write, and what to write them over. */
struct DomainWalk {
    MYSQL *panel;
    StoreConnection *connection;
    const char *domain;
    const ResponderList *list;
};

void report_missing(const char *mail_name, const char *domain, std::int32_t mail_id)
{
    log_message(LOG_ERR,
                "Unable to restore autoresponder for '%s@%s': check if you have record in table 'mail_resp' "
                "with mn_id=%d and resp_name='default' and corresponding records in tables 'mail' and "
                "'resp_forward'",
                mail_name, domain, mail_id);
}

int restore_mailboxes(const DomainWalk &walk, char *const *mail_names, char *const *mail_ids)
{
    int result = 0;

    for (; *mail_names != nullptr; mail_names++) {
        /* A comma in a mailbox's name makes more names than ids: what has no id is found missing under 0. */
        const char *const id = *mail_ids != nullptr ? *mail_ids++ : "0";
        const auto key = static_cast<std::int32_t>(std::strtol(id, nullptr, 10));
        const ResponderRecord *const record = responder_list_find(walk.list, key);

        if (record == nullptr) {
            /* The others are still written; the domain fails as a whole. */
            report_missing(*mail_names, walk.domain, key);
            result = -1;
        } else if (restore_responder_attachments(walk.panel, walk.connection, *mail_names, walk.domain,
                                                 record) != 0) {
            return -1;
        }
    }
    return result;
}

bool restore_mail_names(const char *mail_names, const char *mail_ids, const char *domain)
{
    /* Handlers first, so that a failed registration leaves the store untouched for this domain. */
    if (set_autoresponder_handlers(mail_names, domain, HANDLER_ACTION_ADD) != 0) {
        log_message(LOG_ERR, "Unable to reconfigure autoresponder for domain %s", domain);
        return false;
    }
    if (load_domain_responders(panel_db, &responder_db, mail_names, mail_ids, domain) != 0) {
        log_message(LOG_ERR, "Unable to sync configuration of autoresponder for domain %s", domain);
        return false;
    }
    return true;
}

} // namespace

int restore_domain_responders(const char *domain_id, const char *domain)
{
    const PanelResult rows = query_domain(
        "SELECT group_concat(mail_name SEPARATOR ','), group_concat(id SEPARATOR ',') FROM mail  "
        "WHERE dom_id=%s AND autoresponder='true'",
        domain_id, "Unable to generate query for mail names/aliases", "Unable to query mail names: %s");

    if (rows == nullptr)
        return -1;
    while (const MYSQL_ROW row = mysql_fetch_row(rows.get())) {
        const char *const mail_names = panel_text(row[0]);

        if (*mail_names != '\0' && !restore_mail_names(mail_names, panel_text(row[1]), domain))
            return 1;
    }
    return 0;
}

int load_domain_responders(MYSQL *panel, StoreConnection *connection, const char *mail_names,
                           const char *mail_ids, const char *domain)
{
    OwnedResponderList list;

    if (query_responders(panel, mail_ids, list.get()) != 0)
        return -1;

    OwnedStringArray names(string_array_split(mail_names, ","));

    if (names == nullptr) {
        list.reset(); /* first, here and below: the log may need the memory */
        log_message(LOG_ERR, "Unable to split mail names list: out of memory");
        return -1;
    }

    const OwnedStringArray ids(string_array_split(mail_ids, ","));

    if (ids == nullptr) {
        names.reset();
        list.reset();
        log_message(LOG_ERR, "Unable to split mail id's list: out of memory");
        return -1;
    }
    return restore_mailboxes({panel, connection, domain, list.get()}, names.get(), ids.get());
}

int restore_responder_attachments(MYSQL *panel, StoreConnection *connection, const char *mail_name,
                                  const char *domain, const ResponderRecord *record)
{
    char query[query_size];

    (void)std::snprintf(query, sizeof query, "SELECT filename FROM resp_attach WHERE rn_id=%d", record->id);

    PanelResult rows = panel_select(panel, query, std::strlen(query));

    if (rows == nullptr) {
        log_message(LOG_ERR, "Unable to query autoresponder %s@%s attachments: %s", mail_name, domain,
                    mysql_error(panel));
        return -1;
    }

    FileNames names;

    if (read_attachments(rows.get(), &names) != 0)
        return -1;
    rows.reset(); /* before the store is written: its pauses have no use for the server's rows */
    if (responder_db_add_autoresponder(connection, mail_name, domain, record) != 0)
        return -1;
    return responder_db_add_attachments(connection, mail_name, domain, names.get(), names.count());
}

} // namespace kolmo
