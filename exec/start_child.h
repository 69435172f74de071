/*
 * start_child: the one place where this program forks, and the child's side of it.
 */
#pragma once

#include <sys/types.h>

namespace kolmo
{

/* Says on the child's standard error that path cannot be executed; `error` is execv's errno. */
using ExecvComplaint = void (*)(const char *path, int error);

/*
 * fork_execv_pipes without its words: a failed fork is the result, with its errno, and `complain` tells that
 * path cannot be executed.
 */
[[nodiscard]] pid_t start_child(const int (&streams)[3], const char *path, const char *const argv[],
                                ExecvComplaint complain);

} // namespace kolmo
