/*
 * busy_retry: what both stores do when another process holds a lock.
 *
 * A call is repeated while it returns SQLITE_BUSY.  The first attempt is followed by no pause, the n-th
 * by (n - 1) x 10 microseconds, also when that attempt succeeded.  There is deliberately no limit: the
 * mail server's lock goes in the end, and a rebuild that gave up halfway would be worse than a slow one.
 * What ends it all the same is nanosleep(2), which rejects the pause of a whole second after the
 * 100,001st attempt.
 *
 * A failed pause ends the whole operation at once: nothing more is logged, finalized, ended or closed.  A
 * caller with signal handlers may meet one (EINTR): PauseWatch tells it from other failures.  The caller's
 * connection then still carries a statement that nobody can finalize, so it must not be closed by
 * close_with_retry; let it go by its destructor or by release().  A lock that it holds, and one of an
 * operation's own connection, lasts until the process ends.
 */
#ifndef KOLMO_RESPONDER_STORE_BUSY_RETRY_H
#define KOLMO_RESPONDER_STORE_BUSY_RETRY_H

#include <sqlite3.h>

#include "responder_store/store_connection.h"

namespace kolmo
{

/* What the pause grows by with each attempt, in nanoseconds. */
constexpr long busy_pause_step_ns = 10'000;

/* Sleeps `nanoseconds`, not at all for 0.  Returns 0, or -1 when nanosleep(2) failed; logs nothing. */
[[nodiscard]] int busy_pause(long nanoseconds);

/*
 * Makes `call`, which returns an SQLite result code, until that is no longer SQLITE_BUSY.
 * Returns 0 with the last code in `rc`, or -1 when a pause failed, with the code of the attempt before
 * it in `rc`.  Logs nothing.
 */
template <typename Call>
[[nodiscard]] int retry_while_busy(int *rc, Call &&call)
{
    long pause = 0;

    do {
        *rc = call();
        if (busy_pause(pause) != 0)
            return -1;
        pause += busy_pause_step_ns;
    } while (*rc == SQLITE_BUSY);
    return 0;
}

/*
 * Closes the connection under the busy rule; one that is closed already, or null, is left alone.
 * Returns 0 when the closing ended, whatever SQLite made of it, or -1 when a pause failed: the
 * connection then stays held if its last attempt was refused as busy.  Logs nothing.
 *
 * A statement that nobody finalized keeps a connection busy, a caller's own or one that a failed pause left:
 * with such a statement this goes on for 14 hours.
 */
[[nodiscard]] int close_with_retry(StoreConnection *connection);

/*
 * Tells whether a pause has failed since the watch was set.  An action behind a function pointer, or an
 * operation on a connection of its own, can only say -1; the process-wide count behind this says why.
 */
class PauseWatch
{
public:
    PauseWatch() noexcept;
    [[nodiscard]] bool failed() const noexcept;

private:
    unsigned long before_;
};

} // namespace kolmo

#endif
