#include "refresh/interruption.h"

#include <cerrno>
#include <climits>
#include <cstring>

#include <sys/wait.h>
#include <unistd.h>

#include "refresh/folder.h"
#include "verify/progress.h"

namespace kolmo
{

namespace
{

constexpr int ending_signals[] = {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGTERM};
constexpr int stopping_signals[] = {SIGTSTP, SIGTTIN, SIGTTOU};

volatile pid_t child_to_end = 0;
using Path = char[PATH_MAX];

Path folder_to_remove = "";
Path file_to_remove = "";
sigset_t caught = {};

/* Only calls that signal-safety(7) lists, or that are one system call. */
void on_signal(int signal_number)
{
    wipe_progress_line();
    if (child_to_end > 0) {
        (void)::kill(child_to_end, SIGKILL);
        while (::waitpid(child_to_end, nullptr, 0) < 0 && errno == EINTR)
            ;
    }
    if (*folder_to_remove != '\0')
        (void)remove_staging_folder(folder_to_remove);
    if (*file_to_remove != '\0')
        (void)::unlink(file_to_remove);
    (void)::raise(signal_number);
}

void set_path(Path *place, const char *path)
{
    const HoldSignals held;

    (void)std::strncpy(*place, path, sizeof *place - 1);
}

} // namespace

void catch_signals()
{
    struct sigaction action = {};

    action.sa_handler = on_signal;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    (void)::sigemptyset(&caught);
    for (const int signal_number : ending_signals) {
        struct sigaction before = {};

        if (::sigaction(signal_number, nullptr, &before) == 0 && before.sa_handler == SIG_DFL)
            (void)::sigaddset(&caught, signal_number);
    }
    action.sa_mask = caught;
    for (const int signal_number : ending_signals) {
        if (::sigismember(&caught, signal_number) == 1)
            (void)::sigaction(signal_number, &action, nullptr);
    }
}

void set_child_to_end(pid_t child)
{
    child_to_end = child;
}

void set_folder_to_remove(const char *path)
{
    set_path(&folder_to_remove, path);
}

void set_file_to_remove(const char *path)
{
    set_path(&file_to_remove, path);
}

HoldSignals::HoldSignals() noexcept
{
    sigset_t held = caught;

    for (const int signal_number : stopping_signals)
        (void)::sigaddset(&held, signal_number);
    (void)::sigprocmask(SIG_BLOCK, &held, &before_);
}

HoldSignals::~HoldSignals()
{
    (void)::sigprocmask(SIG_SETMASK, &before_, nullptr);
}

void HoldSignals::give_up() const noexcept
{
    struct sigaction action = {};

    action.sa_handler = SIG_DFL;
    for (const int signal_number : ending_signals) {
        if (::sigismember(&caught, signal_number) == 1)
            (void)::sigaction(signal_number, &action, nullptr);
    }
    (void)::sigprocmask(SIG_SETMASK, &before_, nullptr);
}

} // namespace kolmo
