/*
 * interruption: a signal ends the program at once, and yet nothing of it stays.
 *
 * SIGHUP, SIGINT, SIGQUIT, SIGPIPE and SIGTERM, as far as they are not ignored, end the rebuild, remove what
 * was staged and then end the program, by the same signal.  SIGPIPE does so only until the panel database is
 * asked, for its client library has it ignored from then on: a write that fails is told by the exit status.
 */
#pragma once

#include <csignal>

#include <sys/types.h>

namespace kolmo
{

/* From now on.  Once, before the first of what follows. */
void catch_signals();

/* Which child to end; 0 for none.  While this is changed the signals must be held back. */
void set_child_to_end(pid_t child);

/* Which folder to remove, by remove_staging_folder; an empty path for none.  Set before it is made. */
void set_folder_to_remove(const char *path);

/* Which file to remove; an empty path for none.  Set before it is made. */
void set_file_to_remove(const char *path);

/* The caught signals, and those that stop a process, as Ctrl-Z does, wait until the end of the scope. */
class HoldSignals
{
public:
    HoldSignals() noexcept;
    ~HoldSignals();
    HoldSignals(const HoldSignals &) = delete;
    HoldSignals &operator=(const HoldSignals &) = delete;

    /* For a child: the caught signals act as they did before, and come again. */
    void give_up() const noexcept;

private:
    sigset_t before_;
};

} // namespace kolmo
