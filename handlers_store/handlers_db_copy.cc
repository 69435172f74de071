#include "handlers_store/handlers_db.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/log.h"
#include "common/owned.h"
#include "common/report_error.h"
#include "common/text.h"
#include "handlers_store/handlers_store_op.h"

namespace kolmo
{

namespace
{

const char select_mailbox_sql[] =
    "SELECT priority, type, queue, name, executable, context, enabled FROM handlers WHERE address=?";

const char select_domain_sql[] = "SELECT priority, type, queue, name, executable, context, enabled, address "
                                 "FROM handlers WHERE address LIKE '%' || ? || '%'";

/*
 * An address made by xasprintf.  The store's users have room for so many characters and a cut address
 * would be somebody else's, so a longer one ends the process.
 */
OwnedText checked_address(char *address)
{
    OwnedText checked(address);

    if (std::strlen(address) >= address_key_size) {
        errno = 0; /* no system error to tell of, whatever SQLite met before */
        report_error(EXIT_FAILURE, 0, "Handler address is longer than %zu characters: %s",
                     address_key_size - 1, address);
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
 * compared with the domain: rows of a longer domain that contains it are copied as well, as ever.
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

int read_copies(StoreOp &op, CopyPlan *plan, HandlerList *list)
{
    const std::array key = {
        bind_text(plan->source.get(), "Unable to bind parameter 'address' to the 'SELECT' query: %s")};
    bool kept = true;
    int step;

    if (op.select(plan->whole_domain ? select_domain_sql : select_mailbox_sql, key, &step,
                  [&](sqlite3_stmt *row) {
                      if (plan->whole_domain && !plan->set_row_target(column_text(row, 7)))
                          return 0;

                      HandlerRecord copy = record_from_row(row, 4);

                      copy.address = plan->target.get();
                      copy.enabled = sqlite3_column_int(row, 6) == 1;
                      kept = keep_row(list, &copy) == 0;
                      return kept ? 0 : -1;
                  }) != 0 ||
        !kept)
        return -1;
    if (step == SQLITE_DONE)
        return 0;
    log_failure("Unable to select data from handlers database: %s", op.detail());
    return -1;
}

int copy_handlers(StoreOp &op, CopyPlan *plan)
{
    const PauseWatch pauses;
    OwnedHandlerList list;

    if (read_copies(op, plan, list.get()) != 0)
        return -1;
    if (run_actions(op, list.get(), handlers_db_insert_action) == 0)
        return 0;
    if (!pauses.failed())
        log_message(LOG_ERR, "Unable to add records into handlers database");
    return -1;
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
    return with_handlers_store(connection, OpenMode::read_write,
                               [&](StoreOp &op) { return copy_handlers(op, &plan); });
}

} // namespace kolmo
