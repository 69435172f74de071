/*
 * closefrom: what a child process must not inherit.
 */
#pragma once

namespace kolmo
{

/*
 * Close every descriptor from `lowest` upward; a negative `lowest` counts as 0.
 *
 * The open ones are taken from "/proc/self/fd" (proc(5)).  When that cannot be trusted to be complete, every
 * number from the descriptor table's size (getdtablesize(3), the soft RLIMIT_NOFILE) downward is closed as
 * well, which takes a call for each; a descriptor that is above a limit lowered later then stays open.
 *
 * Silent, cannot fail, keeps errno.  The C library has a closefrom too (<unistd.h>): in this namespace it is
 * this one, and after "using namespace kolmo" it has to be called kolmo::closefrom.
 */
void closefrom(int lowest);

} // namespace kolmo
