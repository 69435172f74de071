#include "responder_store/kit/busy_retry.h"

#include <ctime>

namespace kolmo
{

int busy_pause(long nanoseconds)
{
    if (nanoseconds <= 0)
        return 0;

    const timespec pause = {0, nanoseconds};

    /* No remainder is asked for: an interrupted pause is a failed one. */
    return nanosleep(&pause, nullptr);
}

Ending close_with_retry(StoreConnection *connection)
{
    if (connection == nullptr || !connection->is_open())
        return connection != nullptr && connection->is_abandoned() ? Ending::abandoned : Ending::done;

    int rc = SQLITE_OK;
    const Ending ending = retry_while_busy(&rc, [&] { return sqlite3_close(connection->get()); });

    if (rc == SQLITE_BUSY)
        connection->abandon();
    else
        (void)connection->release();
    return ending;
}

} // namespace kolmo
