#include "tests/support/other_process_lock.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolmo::testing
{

namespace
{

/* By a call that no test makes fail. */
bool runs(sqlite3 *connection, const char *sql)
{
    char **cells = nullptr;
    int rows = 0;
    int columns = 0;
    const int rc = sqlite3_get_table(connection, sql, &cells, &rows, &columns, nullptr);

    sqlite3_free_table(cells);
    return rc == SQLITE_OK;
}

/* What the locking process does; it leaves without cleaning up what it inherited. */
[[noreturn]] void hold_lock(const char *path, int ready, int milliseconds)
{
    sqlite3 *connection = nullptr;

    if (sqlite3_open(path, &connection) != SQLITE_OK || !runs(connection, "BEGIN EXCLUSIVE") ||
        write(ready, "", 1) != 1)
        _exit(1);

    pollfd reader = {.fd = ready, .events = 0, .revents = 0}; /* gone with the lock's owner */

    (void)poll(&reader, 1, milliseconds);
    _exit(runs(connection, "COMMIT") ? 0 : 1);
}

} // namespace

OtherProcessLock::OtherProcessLock(const std::string &path, int milliseconds)
{
    int ends[2];
    char byte;

    if (pipe(ends) != 0) {
        ADD_FAILURE() << "no pipe";
        return;
    }

    ready_.reset(ends[0]);
    Fd tell(ends[1]);

    process_ = fork();
    if (process_ == 0) {
        ready_.reset();
        hold_lock(path.c_str(), tell.get(), milliseconds);
    }
    tell.reset();
    EXPECT_EQ(read(ready_.get(), &byte, 1), 1) << "the other process has not locked " << path;
}

OtherProcessLock::~OtherProcessLock()
{
    int status = -1;

    if (process_ <= 0)
        return;
    ready_.reset();
    EXPECT_EQ(waitpid(process_, &status, 0), process_);
    EXPECT_EQ(status, 0);
}

} // namespace kolmo::testing
