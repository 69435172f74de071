/*
 * companion: what the programs beside the rebuild begin and end with.
 */
#pragma once

namespace kolmo
{

/*
 * The main of such a program: the streams that are closed are occupied, a crash writes no password down,
 * SQLite is told that there is one thread, and what the panel's configuration reader logs is not said.
 *
 * name  what the program's messages begin with
 * body  gets the command line and gives the exit status
 * Returns the body's status; 2, after a message on standard error, when an exception left it or standard
 * output could not be written.
 */
[[nodiscard]] int run_companion(const char *name, int argc, char **argv, int (*body)(int, char **));

} // namespace kolmo
