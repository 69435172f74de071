/*
 * child_output: run a program to its end and take what it prints.
 *
 * SIGCHLD must not be ignored: the kernel forgets the status of a child then (waitpid(2)), and every run
 * gives -1.  The capturing runners ask for output with a time-out of a second: of a program that is gone
 * while something it started holds its output open, what has not been read by then is lost.
 */
#pragma once

namespace kolmo
{

/*
 * Run `path` as fork_execv_pipes does, with the inherited standard input; collect standard output and
 * standard error.
 *
 * out, err   receive the texts, terminated, to be freed with free by the caller in any case: empty when
 *            nothing was printed, null only when that pipe was never read
 *
 * Returns the exit code, 0 to 255, or -1 for a program that a signal ended, that was found stopped (see
 * below) or that could not be waited for, logged by wait_child unless it was noticed while the output was
 * still held open.  255 with a line of fork_execv_pipes in *err is the program that could not be started.
 *
 * The process ends with status 1, through report_error, when no pipe can be had ("fork_execv_getouterr:
 * pipe() failed", also for the lack of a descriptor that select(2) can watch, with EMFILE), when its mode
 * cannot be set ("fork_execv_getouterr: fcntl(O_NONBLOCK) failed"), when fork fails or memory runs out.  A
 * failed read is told on standard error, ends that text and nothing else.
 *
 * Signals are left alone.  A program that is stopped while its output is open is waited for until it goes
 * on.  One that is stopped after it has closed its output is logged by wait_child, gives -1 and is left
 * stopped, a child of this process still.
 */
[[nodiscard]] int fork_execv_getouterr(char **out, char **err, const char *path, const char *const argv[]);

/* The same for standard output only: standard error is inherited.  The messages name the other function. */
[[nodiscard]] int fork_execv_getout(char **out, const char *path, const char *const argv[]);

/*
 * Run `path` with these two streams; what it prints on standard error is passed on at once, in pieces of up
 * to 4095 bytes, through report_error (standard error and standard output).  Waits for the end of that
 * output, then for the program.
 *
 * fd_in, fd_out   what becomes standard input and standard output: -1 stands for "/dev/null", others are
 *                 installed as fork_execv_pipes does.  fd_in 0 and fd_out 1 are refused.
 *
 * Returns the exit code, 0 to 255; -1 after a report ("values 0,1,2 not allowed for variables fd_in &
 * fd_out\n", "Error occured during waiting the child process with pid: %d: %s\n", "The child process with pid
 * %d killed by signal %i\n", "The child process with pid %d stopped by signal %i\n").  A failed pipe or fork
 * ends the process with status 1.  A program that cannot be executed gives 255 and, as one piece of output,
 * "Error occured during execv():\n%s%s" (reason, a hint or a dot).  errno is cleared on the way, so that no
 * earlier failure is appended to the program's words.
 */
[[nodiscard]] int fork_exec_fd(int fd_in, int fd_out, const char *path, const char *const argv[]);

} // namespace kolmo
