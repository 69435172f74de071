#include "responder_store/kit/store_connection.h"

#include "common/log.h"
#include "responder_store/kit/busy_retry.h"

namespace kolmo
{

StoreConnection &StoreConnection::operator=(StoreConnection &&other) noexcept
{
    const StoreConnection old(std::move(*this)); /* closed at the end of the scope */

    abandoned_ = other.abandoned_;
    handle_ = other.release();
    return *this;
}

const char *StoreConnection::detail() const noexcept
{
    /* Three r: docs/compatibility.md. */
    return is_open() ? sqlite3_errmsg(handle_) : "general DB errror";
}

sqlite3 *StoreConnection::release() noexcept
{
    abandoned_ = false;
    return std::exchange(handle_, nullptr);
}

Ending open_store(StoreConnection *connection, const char *path, OpenMode mode)
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
        return close_with_retry(&opened) == Ending::done ? Ending::failed : Ending::abandoned;
    }
    (void)sqlite3_busy_timeout(handle, store_busy_timeout_ms);
    *connection = std::move(opened);
    return Ending::done;
}

} // namespace kolmo
