#include "exec/child_process.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <sys/wait.h>

#include "common/log.h"
#include "common/report_error.h"
#include "exec/start_child.h"

namespace kolmo
{

namespace
{

void complain_fork_execv(const char *path, int error)
{
    (void)std::fprintf(stderr, "fork_execv: execv(\"%s\") failed: %s\n", path, std::strerror(error));
}

int decode_status(long pid, long waited, const char *name, int status)
{
    if (WIFSIGNALED(status))
        log_message(LOG_WARNING, "waitpid(%ld)=%ld: process '%s' killed by signal %d", pid, waited, name,
                    WTERMSIG(status));
    else if (WIFSTOPPED(status))
        log_message(LOG_WARNING, "waitpid(%ld)=%ld: process '%s' stopped by signal %d", pid, waited, name,
                    WSTOPSIG(status));
    else if (WIFCONTINUED(status))
        log_message(LOG_WARNING, "waitpid(%ld)=%ld: process '%s' continued", pid, waited, name);
    else
        return WEXITSTATUS(status);
    return -1;
}

/* While it lives, writing to a pipe that nobody reads fails instead of ending the process. */
class SigpipeIgnored
{
public:
    SigpipeIgnored() noexcept
    {
        struct sigaction ignore = {};

        ignore.sa_handler = SIG_IGN;
        (void)::sigaction(SIGPIPE, &ignore, &saved_);
    }
    ~SigpipeIgnored() { (void)::sigaction(SIGPIPE, &saved_, nullptr); }
    SigpipeIgnored(const SigpipeIgnored &) = delete;
    SigpipeIgnored &operator=(const SigpipeIgnored &) = delete;

private:
    struct sigaction saved_ = {};
};

/* 0, or -1 after the report of a short write. */
int write_input(std::FILE *command, const char *input)
{
    const unsigned long length = std::strlen(input);
    const unsigned long written = std::fwrite(input, 1, length, command);

    if (written == length)
        return 0;
    report_error(0, 0, "Failed to execute command with input: only %lu of %lu bytes were written.", written,
                 length);
    return -1;
}

} // namespace

pid_t fork_execv_pipes(int fd_in, int fd_out, int fd_err, const char *path, const char *const argv[])
{
    const pid_t pid = start_child({fd_in, fd_out, fd_err}, path, argv, complain_fork_execv);

    if (pid < 0)
        report_fatal("fork_execv_pipes: fork() failed");
    return pid;
}

int wait_child(pid_t pid, const char *name, int *status)
{
    const char *program = name != nullptr ? name : "<unknown>";
    int own_status = 0;
    int *wait_status = status != nullptr ? status : &own_status;

    if (pid < 0) {
        log_message(LOG_ERR, "fork before spawning '%s' failed", program);
        return -1;
    }
    errno = 0;
    const pid_t waited = ::waitpid(pid, wait_status, WUNTRACED);
    if (waited < 0) {
        const int error = errno;
        log_message(LOG_ERR, "waitpid(%ld) for '%s' process failed: %s (%d)", static_cast<long>(pid), program,
                    std::strerror(error), error);
        return -1;
    }
    if (waited == 0) {
        log_message(LOG_ERR, "waitpid(%ld) for '%s' process returned unexpected 0 code",
                    static_cast<long>(pid), program);
        return -1;
    }
    return decode_status(pid, waited, program, *wait_status);
}

int exec_with_input(const char *command, const char *input)
{
    std::FILE *stream = ::popen(command, "w");

    if (stream == nullptr) {
        report_error(0, 0,
                     "Failed to execute command with input: either pipe, fork or memory allocation failed.");
        return -1;
    }
    const SigpipeIgnored ignored; /* after popen: the command starts with the signal as it was */
    const int written = write_input(stream, input);
    const int status = ::pclose(stream);
    if (written != 0 || status == -1)
        return -1;
    /* A command that a signal ended counts as a success (docs/compatibility.md). */
    return WEXITSTATUS(status);
}

} // namespace kolmo
