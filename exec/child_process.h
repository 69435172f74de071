/*
 * child_process: start a program without a shell, wait for it; and feed one through a shell.
 *
 * A result is the exit code, 0 to 255, or -1 for everything that is not a normal end.  255 is also this
 * family's own word for a program that could not be executed.
 */
#pragma once

#include <sys/types.h>

namespace kolmo
{

/*
 * Start the program `path` (not searched for) with the given standard streams and no other descriptor.
 *
 * fd_in, fd_out, fd_err   what becomes the child's descriptor 0, 1 and 2, in this order: the stream's own
 *        number leaves it as it is inherited, -1 stands for "/dev/null", any other descriptor is installed
 *        with dup2 and closed.  This happens in the child, where the second mention of a descriptor finds it
 *        closed: the three have to differ.  The caller keeps its own.
 * argv   closed by a null; entry 0 is what the program sees as its name
 *
 * Returns the child's process id; the caller waits for it.  A failed fork ends this process with status 1
 * through report_error: "fork_execv_pipes: fork() failed".  All stdio streams are flushed first.
 *
 * The child ends with status 255, after a line on its standard error, when a stream cannot be installed
 * ("fork_execv: dup() failed: ...") or the program not executed ("fork_execv: execv("...") failed: ...").
 * It ends by exit, so what the caller has registered with atexit(3) runs in that child too.
 */
[[nodiscard]] pid_t fork_execv_pipes(int fd_in, int fd_out, int fd_err, const char *path,
                                     const char *const argv[]);

/*
 * Wait until a child has ended or was stopped, and decode what waitpid(2) says.
 *
 * pid      as fork gave it; negative is reported as a failed fork
 * name     for the messages; null shows as "<unknown>"
 * status   receives the raw wait status, may be null; unchanged when nothing was waited for
 *
 * Returns the exit code, 0 to 255; or -1 after one log line: with priority 3 (error) for a failed fork or
 * wait, with priority 4 (warning) for a child that was killed, stopped or continued.  A stopped child is
 * still there, to be waited for again.  errno is cleared before the wait.
 */
[[nodiscard]] int wait_child(pid_t pid, const char *name, int *status);

/*
 * Run a shell command (popen(3)) with `input` on its standard input; its output is not captured.
 *
 * Returns the command's exit code; 0 as well for a command that a signal ended; 127 when the shell cannot run
 * it (sh(1)).  -1 when it could not be started or took less than the whole input, both reported through
 * report_error with exit code 0, and when pclose fails, without a report.
 *
 * What the command leaves unread of an input that fits in the stream's buffer and the pipe is not missed.
 * SIGPIPE is ignored from the start of the command to its end, so that one which reads nothing costs a
 * report and not this process.
 */
[[nodiscard]] int exec_with_input(const char *command, const char *input);

} // namespace kolmo
