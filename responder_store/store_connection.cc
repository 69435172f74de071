#include "responder_store/store_connection.h"

#include "common/log.h"
#include "responder_store/busy_retry.h"

namespace kolmo
{

const char *StoreConnection::detail() const noexcept
{
    /* The third r has been in the logs of both stores from the start: scripts look for it. */
    return handle_ != nullptr ? sqlite3_errmsg(handle_) : "general DB errror";
}

int open_store(StoreConnection *connection, const char *path, OpenMode mode)
{
    const bool read_only = mode == OpenMode::read_only;
    sqlite3 *handle = nullptr;
    const int rc = read_only ? sqlite3_open_v2(path, &handle, SQLITE_OPEN_READONLY, nullptr)
                             : sqlite3_open(path, &handle);
    StoreConnection opened(handle); /* SQLite hands one out for most failures too */

    if (rc != SQLITE_OK) {
        log_message(LOG_ERR,
                    read_only ? "Unable to open database(readonly) %s: %s" : "Unable to open database %s: %s",
                    path, opened.detail());
        if (close_with_retry(&opened) != 0)
            (void)opened.release();
        return -1;
    }
    (void)sqlite3_busy_timeout(handle, store_busy_timeout_ms);
    *connection = std::move(opened);
    return 0;
}

} // namespace kolmo
