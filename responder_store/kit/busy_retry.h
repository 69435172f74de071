/*
 * busy_retry: what both stores do when another process holds a lock.
 *
 * A call is repeated while it returns SQLITE_BUSY.  The first attempt is followed by no pause, the n-th
 * by (n - 1) x 10 microseconds, also when that attempt succeeded.  There is deliberately no limit: the
 * mail server's lock goes in the end, and a rebuild that gave up halfway would be worse than a slow one.
 * What ends it all the same is nanosleep(2), which rejects the pause of a whole second after the
 * 100,001st attempt, or which a signal interrupts.
 *
 * A failed pause ends the whole operation at once: nothing more is logged, finalized, ended or closed.  The
 * connection is abandoned then (responder_store/kit/store_connection.h), and the end of the process lets go
 * of it and of a lock that it holds.
 */
#pragma once

#include <sqlite3.h>

#include "responder_store/kit/store_connection.h"

namespace kolmo
{

/* What the pause grows by with each attempt, in nanoseconds. */
constexpr long busy_pause_step_ns = 10'000;

/* Sleeps `nanoseconds`, not at all for 0.  Returns 0, or -1 when nanosleep(2) failed; logs nothing. */
[[nodiscard]] int busy_pause(long nanoseconds);

/*
 * Makes `call`, which returns an SQLite result code, until that is no longer SQLITE_BUSY.
 * Returns done with the last code in `rc`, or abandoned when a pause failed, with the code of the attempt
 * before it in `rc`.  Logs nothing.
 */
template <typename Call>
[[nodiscard]] Ending retry_while_busy(int *rc, Call &&call)
{
    long pause = 0;

    do {
        *rc = call();
        if (busy_pause(pause) != 0)
            return Ending::abandoned;
        pause += busy_pause_step_ns;
    } while (*rc == SQLITE_BUSY);
    return Ending::done;
}

/*
 * Closes the connection under the busy rule; null and one that is closed already are left alone.
 * Returns done when the closing ended, whatever SQLite made of it; abandoned at once for an abandoned
 * connection, and when a pause failed: a connection that SQLite refused to close is abandoned by that.  Logs
 * nothing.
 *
 * A statement that its owner has not finalized keeps a connection busy: the closing then goes on for 14
 * hours.
 */
[[nodiscard]] Ending close_with_retry(StoreConnection *connection);

} // namespace kolmo
