#include <cstdio>
#include <exception>

#include <sqlite3.h>
#include <sys/prctl.h>

#include "common/log.h"
#include "common/standard_streams.h"
#include "verify/program.h"

namespace
{

/* What the panel's configuration reader logs is told by verify itself, as far as it matters. */
[[gnu::format(printf, 2, 3)]] void say_nothing(int, const char *, ...) {}

} // namespace

int main(int argc, char **argv)
{
    kolmo::occupy_standard_streams();
    /* The database's password is in memory: a crash must not write it down. */
    (void)prctl(PR_SET_DUMPABLE, 0);
    (void)sqlite3_config(SQLITE_CONFIG_SINGLETHREAD);
    (void)sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
    kolmo::log_message = say_nothing;
    try {
        const int status = kolmo::verify_program(argc, argv);

        if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0)
            return status;
        (void)std::fputs("mail_responders_verify: standard output cannot be written\n", stderr);
    } catch (const std::exception &error) {
        (void)std::fprintf(stderr, "mail_responders_verify: %s\n", error.what());
    }
    return 2;
}
