/*
 * store_connection: an SQLite connection that knows whether it was closed.
 *
 * A store operation that fails closes the connection it worked on, also one that its caller passed, and
 * the caller goes on holding it.  This object is what the caller holds: it is empty once closed, so later
 * use fails cleanly ("general DB errror") and a second close does nothing.
 */
#ifndef KOLMO_RESPONDER_STORE_STORE_CONNECTION_H
#define KOLMO_RESPONDER_STORE_STORE_CONNECTION_H

#include <utility>

#include <sqlite3.h>

namespace kolmo
{

class StoreConnection
{
public:
    /* No connection: every operation on it fails, none crashes. */
    StoreConnection() noexcept = default;

    /* Takes over a handle that the caller opened with sqlite3_open or sqlite3_open_v2; null is no connection.
     */
    explicit StoreConnection(sqlite3 *handle) noexcept : handle_(handle) {}

    StoreConnection(StoreConnection &&other) noexcept : handle_(other.release()) {}
    StoreConnection &operator=(StoreConnection &&other) noexcept
    {
        std::swap(handle_, other.handle_);
        return *this;
    }
    StoreConnection(const StoreConnection &) = delete;
    StoreConnection &operator=(const StoreConnection &) = delete;

    /*
     * Closes what is still open, once and without retries: the safety net for a forgotten close.
     * Ending the work on a store is close_with_retry's.
     */
    ~StoreConnection() { (void)sqlite3_close(handle_); }

    /* The handle, null when there is none or it was closed.  It stays this object's. */
    [[nodiscard]] sqlite3 *get() const noexcept { return handle_; }

    [[nodiscard]] bool is_open() const noexcept { return handle_ != nullptr; }

    /* What SQLite says of the latest failed call, or the fixed text for no connection; never null. */
    [[nodiscard]] const char *detail() const noexcept;

    /* Lets go of the handle without closing it; the result is the caller's. */
    sqlite3 *release() noexcept { return std::exchange(handle_, nullptr); }

private:
    sqlite3 *handle_ = nullptr;
};

/* How long SQLite itself waits for another process's lock before it reports SQLITE_BUSY, in milliseconds. */
constexpr int store_busy_timeout_ms = 50;

enum class OpenMode {
    read_write, /* created if missing */
    read_only,  /* never creates the file */
};

/*
 * Opens the SQLite file at `path` and sets its busy time-out.
 *
 * Returns 0 with the open connection in `connection` (what it held before is closed), or -1 with
 * `connection` as it was, after logging at priority 3 "Unable to open database %s: %s" or, read-only,
 * "Unable to open database(readonly) %s: %s" with the path and SQLite's text.  A handle that SQLite
 * returned for the failure is closed.  A file that is no database opens well: the first statement fails.
 */
[[nodiscard]] int open_store(StoreConnection *connection, const char *path, OpenMode mode);

} // namespace kolmo

#endif
