/*
 * process_faults: system calls that fail or answer as a test says, for what no real process does on demand.
 *
 * For the test program that links with -Wl,--wrap= for these calls.  Without an object of these types
 * each call does what it always does.  The objects act in processes that are forked while they live, too.
 */
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kolmo::testing
{

enum class Call { dup2, fcntl, fork, open, pipe, popen, read, select, waitpid };

/*
 * The nth call from now on fails with this errno, after `before` has run; select "fails" with 0, as a
 * time-out, when the errno is 0.  One at a time.
 */
class Fault
{
public:
    Fault(Call call, int nth, int error, std::function<void()> before = {});
    ~Fault();
    Fault(const Fault &) = delete;
    Fault &operator=(const Fault &) = delete;

    /* Whether the call has failed; always false for one in another process. */
    [[nodiscard]] static bool has_fired();
};

/* What waitpid gives, errno included, instead of waiting, as long as this lives. */
class FakeWait
{
public:
    FakeWait(pid_t result, int status, int error);
    ~FakeWait();
    FakeWait(const FakeWait &) = delete;
    FakeWait &operator=(const FakeWait &) = delete;
};

/* Every select is noted: its time-out in milliseconds, and whether its descriptors are non-blocking. */
class SelectWatch
{
public:
    SelectWatch();
    ~SelectWatch();
    SelectWatch(const SelectWatch &) = delete;
    SelectWatch &operator=(const SelectWatch &) = delete;

    struct Seen {
        long timeout;
        bool is_blocking;
    };
    std::vector<Seen> calls;

    /* What is done before a call, which is counted already. */
    std::function<void()> on_call;
};

/* Instead of being executed, a program's path and arguments are printed, line by line, and it exits with 1.
 */
class ExecvShown
{
public:
    ExecvShown();
    ~ExecvShown();
    ExecvShown(const ExecvShown &) = delete;
    ExecvShown &operator=(const ExecvShown &) = delete;
};

/* What each write(2) of the code, a child's too, prints stands in brackets. */
class WritesShown
{
public:
    WritesShown();
    ~WritesShown();
    WritesShown(const WritesShown &) = delete;
    WritesShown &operator=(const WritesShown &) = delete;
};

/* Forks are counted. */
class ForkCount
{
public:
    ForkCount();
    [[nodiscard]] int count() const;

private:
    int before_;
};

/*
 * The directory of open descriptors, its own number 901 ("*"), and the size of the table; what is closed is
 * only noted.  `end_error` is what ends the entries, 0 for their end; without a list opening fails.
 */
class FakeDescriptors
{
public:
    FakeDescriptors(std::optional<std::vector<std::string>> names, int table_size, int end_error = 0);
    ~FakeDescriptors();
    FakeDescriptors(const FakeDescriptors &) = delete;
    FakeDescriptors &operator=(const FakeDescriptors &) = delete;

    /* The numbers closed so far, in order: "3 7 40". */
    [[nodiscard]] std::string closed() const;
};

} // namespace kolmo::testing
