/*
 * progress: a line on standard error that says how far a run is, and when it may end.
 */
#pragma once

#include <chrono>

namespace kolmo
{

/* Takes the line away, for one who is ended by a signal: safe in a signal handler. */
void wipe_progress_line() noexcept;

class Progress
{
public:
    /* Without `shown` nothing is ever printed.  `what` is said before the numbers. */
    explicit Progress(bool shown, const char *what = "");
    ~Progress() { clear(); }
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    /* Prints the line anew, not more often than ten times a second. */
    void show(unsigned long done, unsigned long all);

    /* Takes the line away. */
    void clear();

private:
    using Clock = std::chrono::steady_clock;

    bool shown_;
    const char *what_;
    Clock::time_point start_ = Clock::now();
    Clock::time_point last_ = start_;
};

} // namespace kolmo
