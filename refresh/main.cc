/*
 * mail_responders_refresh: rebuilds the autoresponder's stores aside and publishes what differs.
 */
#include <csignal>

#include "refresh/program.h"
#include "verify/companion.h"

int main(int argc, char **argv)
{
    /* A parent that ignores it would have the kernel forget how the rebuild ended. */
    (void)std::signal(SIGCHLD, SIG_DFL);
    return kolmo::run_companion("mail_responders_refresh", argc, argv, kolmo::refresh_program);
}
