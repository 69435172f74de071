/*
 * program: a run of mail_responders_verify.
 */
#pragma once

namespace kolmo
{

/* Reads the command line, looks, and says what it found.  Returns the exit status: 0, 1 or 2. */
[[nodiscard]] int verify_program(int argc, char **argv);

} // namespace kolmo
