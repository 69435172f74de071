#include "responder_store/busy_retry.h"

#include <ctime>

namespace kolmo
{

namespace
{

unsigned long failed_pauses;

} // namespace

int busy_pause(long nanoseconds)
{
    if (nanoseconds <= 0)
        return 0;

    const timespec pause = {0, nanoseconds};

    /* No remainder is asked for: an interrupted pause is a failed one. */
    if (nanosleep(&pause, nullptr) == 0)
        return 0;
    failed_pauses++;
    return -1;
}

int close_with_retry(StoreConnection *connection)
{
    if (connection == nullptr || !connection->is_open())
        return 0;

    int rc = SQLITE_OK;
    const int result = retry_while_busy(&rc, [&] { return sqlite3_close(connection->get()); });

    if (rc != SQLITE_BUSY)
        (void)connection->release();
    return result;
}

PauseWatch::PauseWatch() noexcept : before_(failed_pauses) {}

bool PauseWatch::failed() const noexcept
{
    return failed_pauses != before_;
}

} // namespace kolmo
