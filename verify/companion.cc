#include "verify/companion.h"

#include <cstdio>
#include <exception>

#include <sqlite3.h>
#include <sys/prctl.h>

#include "common/log.h"
#include "common/standard_streams.h"

namespace kolmo
{

namespace
{

/* What the panel's configuration reader logs a companion tells by itself, as far as it matters. */
[[gnu::format(printf, 2, 3)]] void say_nothing(int, const char *, ...) {}

} // namespace

int run_companion(const char *name, int argc, char **argv, int (*body)(int, char **))
{
    occupy_standard_streams();
    /* The database's password is in memory: a crash must not write it down. */
    (void)prctl(PR_SET_DUMPABLE, 0);
    (void)sqlite3_config(SQLITE_CONFIG_SINGLETHREAD);
    (void)sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
    log_message = say_nothing;
    try {
        const int status = body(argc, argv);

        if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0)
            return status;
        (void)std::fprintf(stderr, "%s: %s\n", name, "standard output cannot be written");
    } catch (const std::exception &error) {
        (void)std::fprintf(stderr, "%s: %s\n", name, error.what());
    }
    return 2;
}

} // namespace kolmo
