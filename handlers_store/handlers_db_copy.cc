#include "handlers_store/handlers_db.h"

#include <array>
#include <cerrno>
#include <cstring>

#include "common/log.h"
#include "common/owned.h"
#include "common/report_error.h"
#include "common/text.h"
#include "handlers_store/handler_rows.h"
#include "handlers_store/handlers_store_op.h"

namespace kolmo
{

namespace
{

constexpr Sql<1> copied_mailbox_sql =
    "SELECT priority, type, queue, name, executable, context, enabled FROM handlers WHERE address=?";

constexpr Sql<1> copied_domain_sql =
    "SELECT priority, type, queue, name, executable, context, enabled, address FROM handlers "
    "WHERE address LIKE '%' || ? || '%'";

/*
 * An address made by xasprintf.  The store's users have room for so many characters and a cut address
 * would be somebody else's, so a longer one ends the process.
 */
OwnedText checked_address(char *address)
{
    OwnedText checked(address);

    if (std::strlen(address) >= address_key_size) {
        errno = 0; /* no system error to tell of, whatever SQLite met before */
        report_fatal("Handler address is longer than %zu characters: %s", address_key_size - 1, address);
    }
    return checked;
}

/* Where handlers are copied from and to; a domain's targets are made row by row. */
struct CopyPlan {
    bool whole_domain;
    const char *target_domain;
    OwnedText source;
    OwnedText target;

    [[nodiscard]] bool set_row_target(const char *address);
};

/*
 * The target of a domain's row, false for a row that is not copied.  What stands behind the "@" is not
 * compared with the domain: rows of a longer domain that contains it are copied as well
 * (docs/compatibility.md).
 */
bool CopyPlan::set_row_target(const char *address)
{
    const char *const at = address != nullptr ? std::strchr(address, '@') : nullptr;

    if (at != nullptr) {
        target =
            checked_address(xasprintf("%.*s@%s", static_cast<int>(at - address), address, target_domain));
        return true;
    }
    if (address == nullptr || std::strcmp(address, source.get()) != 0)
        return false;
    target = checked_address(xasprintf("%s", target_domain));
    return true;
}

Ending read_copies(StoreOp &op, CopyPlan *plan, HandlerList *list)
{
    const std::array key = {
        bind_text(plan->source.get(), "Unable to bind parameter 'address' to the 'SELECT' query: %s")};
    Rows rows(op, plan->whole_domain ? copied_domain_sql : copied_mailbox_sql, key);

    while (rows.next()) {
        if (plan->whole_domain && !plan->set_row_target(rows.text(7)))
            continue;

        HandlerRecord copy = record_from_row(rows, 4);

        copy.address = plan->target.get();
        copy.enabled = rows.integer(6) == 1;
        if (keep_row(list, &copy) != 0)
            return Ending::failed;
    }
    return rows.finish("Unable to select data from handlers database: %s");
}

Ending copy_handlers(StoreOp &op, CopyPlan *plan)
{
    OwnedHandlerList list;
    const Ending read = read_copies(op, plan, list.get());

    if (read != Ending::done)
        return read;

    const Ending added = run_actions(op, list.get(), handlers_db_insert_action);

    if (added == Ending::failed) {
        list.reset(); /* first: the log may need the memory */
        log_message(LOG_ERR, "Unable to add records into handlers database");
    }
    return added;
}

} // namespace

int handlers_db_copy(StoreConnection *connection, const char *source_mail, const char *source_domain,
                     const char *target_mail, const char *target_domain)
{
    CopyPlan plan = {source_mail == nullptr, target_domain, nullptr, nullptr};

    if (plan.whole_domain) {
        plan.source = checked_address(xasprintf("%s", source_domain));
    } else {
        const char *const mail = target_mail != nullptr ? target_mail : source_mail;

        plan.source = checked_address(xasprintf("%s@%s", source_mail, source_domain));
        plan.target = checked_address(xasprintf("%s@%s", mail, target_domain));
    }
    return to_result(with_handlers_store(connection, OpenMode::read_write,
                                         [&](StoreOp &op) { return copy_handlers(op, &plan); }));
}

} // namespace kolmo
