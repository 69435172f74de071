/*
 * start_child: the one place where this program forks, and the child's side of it.
 *
 * The runners differ in what they do when fork fails and in the words for a program that cannot be executed;
 * both stay with them.
 */
#ifndef KOLMO_EXEC_START_CHILD_H
#define KOLMO_EXEC_START_CHILD_H

#include <sys/types.h>

namespace kolmo
{

/* Says on the child's standard error that path cannot be executed; `error` is execv's errno. */
using ExecvComplaint = void (*)(const char *path, int error);

/*
 * Fork, and run path in the child with streams[0..2] as its descriptors 0 to 2 and none above.
 *
 * streams   what to install, by stream: its own number leaves it as it is inherited, -1 stands for
 *           "/dev/null", anything else is dup2'ed onto it and closed (in the child only)
 * Returns the child's process id, or fork's -1 with its errno; never in the child, which ends with
 * status 255 when a stream cannot be installed ("fork_execv: dup() failed: ...") or path not executed.
 *
 * All stdio streams are flushed first: a child that ends by exit would write their buffers once more.
 */
[[nodiscard]] pid_t start_child(const int (&streams)[3], const char *path, const char *const argv[],
                                ExecvComplaint complain);

} // namespace kolmo

#endif
