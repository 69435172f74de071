#include "exec/child_output.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <span>
#include <utility>

#include <fcntl.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/owned.h"
#include "common/report_error.h"
#include "exec/child_process.h"
#include "exec/output_pipe.h"
#include "exec/start_child.h"

namespace kolmo
{

namespace
{

/* What is collected of a child: standard output, and standard error if there is a second one. */
using Captures = std::span<CaptureBuffer>;

/* False, with errno, for a descriptor beyond an fd_set (select(2)); there is no lower one free then. */
bool can_be_selected(const Fd &fd)
{
    if (fd.get() < FD_SETSIZE)
        return true;
    errno = EMFILE;
    return false;
}

/* The texts name one runner for both (docs/compatibility.md). */
void open_captures_or_exit(Captures captures, std::span<Fd> write_ends)
{
    for (std::size_t i = 0; i < captures.size(); i++) {
        Pipe pipe;
        if (open_pipe(&pipe) != 0 || !can_be_selected(pipe.read_end))
            report_fatal("fork_execv_getouterr: pipe() failed");
        captures[i].read_end = std::move(pipe.read_end);
        write_ends[i] = std::move(pipe.write_end);
    }
    for (const CaptureBuffer &capture : captures) {
        if (::fcntl(capture.read_end.get(), F_SETFL, O_NONBLOCK) != 0)
            report_fatal("fork_execv_getouterr: fcntl(O_NONBLOCK) failed");
    }
}

bool is_open(const CaptureBuffer &capture)
{
    return capture.read_end.is_open();
}

/* True with the ready ones in the set; false when a second has passed without any, or select has failed. */
bool wait_for_output(Captures captures, fd_set *ready)
{
    timeval timeout = {1, 0};
    int highest = -1;

    FD_ZERO(ready);
    for (const CaptureBuffer &capture : captures) {
        if (is_open(capture)) {
            FD_SET(capture.read_end.get(), ready);
            highest = std::max(highest, capture.read_end.get());
        }
    }
    return ::select(highest + 1, ready, nullptr, nullptr, &timeout) > 0;
}

void read_ready(Captures captures, const fd_set &ready)
{
    for (CaptureBuffer &capture : captures) {
        if (is_open(capture) && FD_ISSET(capture.read_end.get(), &ready))
            read_chunk(&capture);
    }
}

/* Takes the status of a child that has ended: true with the run's result, false while it runs. */
bool reap_if_ended(pid_t pid, int *result)
{
    int status;

    errno = 0;
    if (::waitpid(pid, &status, WNOHANG) == 0)
        return false;
    *result = errno != 0 || WIFSIGNALED(status) ? -1 : WEXITSTATUS(status);
    return true;
}

/* The read loop: until every pipe has ended, or the child has without its pipes. */
int collect(Captures captures, pid_t pid, const char *path)
{
    while (std::any_of(captures.begin(), captures.end(), is_open)) {
        fd_set ready;
        int result = -1;
        if (wait_for_output(captures, &ready))
            read_ready(captures, ready);
        else if (reap_if_ended(pid, &result))
            return result; /* what is unread goes with the pipes */
    }
    return wait_child(pid, path, nullptr);
}

int run_captured(Captures captures, const char *path, const char *const argv[])
{
    Fd write_ends[2];

    open_captures_or_exit(captures, write_ends);
    const int fd_err = write_ends[1].is_open() ? write_ends[1].get() : STDERR_FILENO;
    const pid_t pid = fork_execv_pipes(STDIN_FILENO, write_ends[0].get(), fd_err, path, argv);
    for (Fd &write_end : write_ends)
        write_end.reset(); /* or the pipes would never come to their end */
    return collect(captures, pid, path);
}

/* In one write, or the parent may make two reports of it; a stream without a buffer writes in pieces. */
void complain_exec_fd(const char *, int error)
{
    char text[512];
    const int length = std::snprintf(
        text, sizeof text, "Error occured during execv():\n%s%s", std::strerror(error),
        error == EFAULT
            ? ", possible reason - NULL parameter is absent in util_exec(path, arg1, arg2, NULL) call.\n"
            : ".\n");

    (void)!::write(STDERR_FILENO, text, static_cast<std::size_t>(length));
}

void report_output(Fd read_end)
{
    char chunk[4096];

    errno = 0; /* no failure is reported here */
    while (read_end.is_open()) {
        const std::size_t length = read_pipe(&read_end, chunk, sizeof chunk - 1);
        chunk[length] = '\0';
        if (length > 0)
            report_error(0, 0, "%s", chunk);
    }
}

int wait_exec_fd(pid_t pid)
{
    int status;

    if (::waitpid(pid, &status, WUNTRACED) < 0)
        report_error(0, 0, "Error occured during waiting the child process with pid: %d: %s\n", pid,
                     std::strerror(errno));
    else if (WIFSIGNALED(status))
        report_error(0, 0, "The child process with pid %d killed by signal %i\n", pid, WTERMSIG(status));
    else if (WIFSTOPPED(status))
        report_error(0, 0, "The child process with pid %d stopped by signal %i\n", pid, WSTOPSIG(status));
    else
        return WEXITSTATUS(status);
    return -1;
}

} // namespace

int fork_execv_getouterr(char **out, char **err, const char *path, const char *const argv[])
{
    CaptureBuffer captures[2];

    *out = *err = nullptr;
    const int result = run_captured(captures, path, argv);
    *out = release_text(&captures[0]);
    *err = release_text(&captures[1]);
    return result;
}

int fork_execv_getout(char **out, const char *path, const char *const argv[])
{
    CaptureBuffer captures[1];
    const int result = run_captured(captures, path, argv);
    *out = release_text(&captures[0]);
    return result;
}

int fork_exec_fd(int fd_in, int fd_out, const char *path, const char *const argv[])
{
    Pipe errors;

    if (fd_in == STDIN_FILENO || fd_out == STDOUT_FILENO) {
        report_error(0, 0, "values 0,1,2 not allowed for variables fd_in & fd_out\n");
        return -1;
    }
    if (open_pipe(&errors) != 0)
        report_fatal("fork_exec_fd pipe(): %s", std::strerror(errno));
    const pid_t pid = start_child({fd_in, fd_out, errors.write_end.get()}, path, argv, complain_exec_fd);
    if (pid < 0)
        report_fatal("Error occured during fork():\n%s", std::strerror(errno));
    errors.write_end.reset();
    report_output(std::move(errors.read_end));
    return wait_exec_fd(pid);
}

} // namespace kolmo
