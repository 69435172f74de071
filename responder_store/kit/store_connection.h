/*
 * store_connection: an SQLite connection that knows whether it was closed or abandoned.
 *
 * A store operation that fails closes the connection it worked on, also one that its caller passed, and
 * the caller goes on holding it.  This object is what the caller holds:
 *
 * open       operations work on it
 * closed     there is no connection, or none any more: operations fail cleanly ("general DB errror"), a
 *            second close does nothing
 * abandoned  a pause of the busy rule failed (responder_store/kit/busy_retry.h), perhaps with a statement
 *            that is not finalized and a transaction that is not ended: operations, close_with_retry and the
 *            destructor leave it alone and say nothing; the end of the process lets go of it
 *
 * An object, like all of SQLite here, is used by one thread at a time.
 *
 * Every operation on the stores (responder_store/responder_db.h, handlers_store/handlers_db.h):
 * - takes a connection to work on, or null to open the store, with a busy time-out of 50 ms, and close it;
 * - repeats what another process's lock keeps from it, without a limit;
 * - logs at priority 3 through log_message (common/log.h), with SQLite's text, or "general DB errror" without
 *   a connection, as the detail;
 * - reports what follows, or a parameter that cannot be bound, closes the connection, the caller's too, so
 *   that SQLite discards the transaction, and returns -1:
 *     "Unable to open database %s: %s"                      path, detail
 *     "Unable to prepare SQL statement for query '%s': %s"  statement, detail
 *     "Unable to begin sqlite transaction: %s"              detail
 *     "Unable to end sqlite transaction: %s"                detail
 * - returns -1 without a word when a pause failed: the connection is abandoned then, as it stands;
 * - leaves the caller's texts alone.  Texts may not be null where nothing else is said.
 */
#pragma once

#include <utility>

#include <sqlite3.h>

namespace kolmo
{

/* How an operation on a store, or a step of one, came to its end. */
enum class Ending {
    done,
    failed,    /* reported, the connection perhaps closed */
    abandoned, /* a pause failed: nothing was logged, and nothing may be touched again */
};

/* What callers outside the kit see of it: 0, or -1 for either failure. */
[[nodiscard]] constexpr int to_result(Ending ending)
{
    return ending == Ending::done ? 0 : -1;
}

class StoreConnection
{
public:
    /* Closed. */
    StoreConnection() noexcept = default;

    /* Takes over a handle that the caller opened with sqlite3_open or sqlite3_open_v2; null is closed. */
    explicit StoreConnection(sqlite3 *handle) noexcept : handle_(handle) {}

    StoreConnection(StoreConnection &&other) noexcept : abandoned_(other.abandoned_), handle_(other.release())
    {
    }
    StoreConnection &operator=(StoreConnection &&other) noexcept;

    /*
     * Closes what is still open, once and without retries: the safety net for a forgotten close.
     * Ending the work on a store is close_with_retry's.
     */
    ~StoreConnection()
    {
        if (is_open())
            (void)sqlite3_close(handle_);
    }

    /* The handle, null when it is closed.  It stays this object's; that of an abandoned one is not for use.
     */
    [[nodiscard]] sqlite3 *get() const noexcept { return handle_; }

    [[nodiscard]] bool is_open() const noexcept { return handle_ != nullptr && !abandoned_; }
    [[nodiscard]] bool is_abandoned() const noexcept { return abandoned_; }

    /* What SQLite says of the latest call on it, or the fixed text for no connection; never null. */
    [[nodiscard]] const char *detail() const noexcept;

    /* After a failed pause. */
    void abandon() noexcept { abandoned_ = handle_ != nullptr; }

    /* Lets go of the handle without closing it; the result is the caller's. */
    sqlite3 *release() noexcept;

private:
    bool abandoned_ = false;
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
 * Returns done with the open connection in `connection` (what it held before is closed), or failed with
 * `connection` as it was, after logging at priority 3 "Unable to open database %s: %s" or, read-only,
 * "Unable to open database(readonly) %s: %s" with the path and SQLite's text; abandoned when, after that, a
 * pause failed.  A handle that SQLite returned for the failure is closed.  A file that is no database opens
 * well: the first statement fails.
 */
[[nodiscard]] Ending open_store(StoreConnection *connection, const char *path, OpenMode mode);

} // namespace kolmo
