/*
 * program: a run of mail_responders_refresh.
 */
#pragma once

namespace kolmo
{

/* Reads the command line, refreshes, and says what came of it.  Returns the exit status: 0, 1 or 2. */
[[nodiscard]] int refresh_program(int argc, char **argv);

} // namespace kolmo
