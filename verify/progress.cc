#include "verify/progress.h"

#include <csignal>
#include <cstdio>

#include <unistd.h>

namespace kolmo
{

namespace
{

constexpr char take_line_away[] = "\r\x1b[K";

volatile std::sig_atomic_t line_is_there = 0;

/* The signal ends the process as it always would; only the line must not stay. */
void on_signal(int signal_number)
{
    wipe_progress_line();
    (void)::raise(signal_number);
}

void catch_once(int signal_number)
{
    struct sigaction action = {};
    struct sigaction before = {};

    if (::sigaction(signal_number, nullptr, &before) != 0 || before.sa_handler != SIG_DFL)
        return;
    action.sa_handler = on_signal;
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
    (void)::sigaction(signal_number, &action, nullptr);
}

} // namespace

void wipe_progress_line() noexcept
{
    if (line_is_there != 0)
        (void)!::write(STDERR_FILENO, take_line_away, sizeof take_line_away - 1);
}

Progress::Progress(bool shown, const char *what) : shown_(shown), what_(what)
{
    if (!shown_)
        return;
    for (const int signal_number : {SIGINT, SIGTERM, SIGHUP})
        catch_once(signal_number);
}

void Progress::show(unsigned long done, unsigned long all)
{
    const Clock::time_point now = Clock::now();

    if (!shown_ || now - last_ < std::chrono::milliseconds(100))
        return;
    last_ = now;

    const double passed = std::chrono::duration<double>(now - start_).count();
    const double left = done > 0 ? passed * static_cast<double>(all - done) / static_cast<double>(done) : 0;

    line_is_there = 1;
    (void)std::fprintf(stderr, "\r%s%lu of %lu mailboxes, about %.0f s left\x1b[K", what_, done, all, left);
    (void)std::fflush(stderr);
}

void Progress::clear()
{
    if (!shown_ || line_is_there == 0)
        return;
    (void)std::fputs(take_line_away, stderr);
    (void)std::fflush(stderr);
    line_is_there = 0;
}

} // namespace kolmo
