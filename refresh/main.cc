/*
 * mail_responders_refresh: rebuilds the autoresponder's stores aside and publishes what differs.
 */
#include <csignal>
#include <cstdio>
#include <exception>

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "common/log.h"
#include "refresh/program.h"

namespace
{

/* What the panel's configuration reader logs is told by the refresh itself, as far as it matters. */
[[gnu::format(printf, 2, 3)]] void say_nothing(int, const char *, ...) {}

/* A free descriptor below 3 would be given to a store or to the lock, and messages would go there. */
void occupy_standard_streams()
{
    int fd;

    do
        fd = ::open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0)
        (void)::close(fd);
}

} // namespace

int main(int argc, char **argv)
{
    occupy_standard_streams();
    /* A parent that ignores it would have the kernel forget how the rebuild ended. */
    (void)std::signal(SIGCHLD, SIG_DFL);
    /* The database's password is in memory: a crash must not write it down. */
    (void)::prctl(PR_SET_DUMPABLE, 0);
    (void)sqlite3_config(SQLITE_CONFIG_SINGLETHREAD);
    (void)sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
    kolmo::log_message = say_nothing;
    try {
        return kolmo::refresh_program(argc, argv);
    } catch (const std::exception &error) {
        (void)std::fprintf(stderr, "mail_responders_refresh: %s\n", error.what());
        return 2;
    }
}
