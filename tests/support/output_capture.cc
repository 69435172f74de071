#include "tests/support/output_capture.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "common/owned.h"

namespace kolmo::testing
{

namespace
{

/* A descriptor that leads elsewhere for as long as this lives. */
class Redirection
{
public:
    Redirection(int fd, const Fd &target) : fd_(fd), saved_(dup(fd))
    {
        if (!saved_.is_open() || dup2(target.get(), fd) < 0)
            ADD_FAILURE() << "cannot redirect descriptor " << fd;
    }
    ~Redirection() { (void)dup2(saved_.get(), fd_); }
    Redirection(const Redirection &) = delete;
    Redirection &operator=(const Redirection &) = delete;

private:
    int fd_;
    Fd saved_;
};

/* A file without a name. */
Fd open_sink()
{
    Fd sink(memfd_create("output", MFD_CLOEXEC));

    if (!sink.is_open())
        ADD_FAILURE() << "no memory file";
    return sink;
}

std::string content_of(const Fd &sink)
{
    std::string text(static_cast<std::size_t>(lseek(sink.get(), 0, SEEK_END)), '\0');

    if (pread(sink.get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
        text = "(unreadable)";
    return text;
}

/* What stdio has kept back stays out of what is captured: it goes to the terminal, before or after. */
void run_redirected(const std::function<void()> &code, const Fd &err, const Fd &out)
{
    (void)std::fflush(nullptr);
    {
        const Redirection from_err(STDERR_FILENO, err);
        const Redirection from_out(STDOUT_FILENO, out);
        code();
    }
    (void)std::fflush(nullptr);
    if (::testing::Test::HasFailure()) /* perhaps one that was meant for the terminal */
        (void)std::fputs(content_of(out).c_str(), stdout);
}

} // namespace

Output output_of(const std::function<void()> &code)
{
    const Fd err = open_sink();
    const Fd out = open_sink();

    run_redirected(code, err, out);
    return {content_of(err), content_of(out)};
}

void break_standard_output()
{
    int ends[2];

    (void)std::fflush(nullptr);
    if (pipe(ends) != 0 || close(ends[0]) != 0 || dup2(ends[1], STDOUT_FILENO) < 0 ||
        std::signal(SIGPIPE, SIG_DFL) == SIG_ERR)
        std::abort();
}

} // namespace kolmo::testing
