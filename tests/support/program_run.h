/*
 * program_run: a program in a process of its own, with pipes for what it prints and a deadline.
 */
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <sys/types.h>

#include "common/owned.h"

namespace kolmo::testing
{

struct ProgramOptions {
    std::vector<std::string> argv = {}; /* its [0] need not be the program's path */
    std::string input = "/dev/null";    /* the file that is its standard input */
    std::vector<int> closed = {};       /* descriptors of 0, 1 and 2 that it starts without */
    std::vector<int> ignored = {};      /* signals that it starts ignoring */
    rlim_t file_size = RLIM_INFINITY;   /* bytes; a write beyond fails (EFBIG) */
    std::chrono::seconds deadline{30};
};

struct ProgramResult {
    pid_t pid = -1;
    int status = -1; /* the exit status, or 1000 + the signal that ended it */
    std::string out; /* whole, as printed */
    std::string err;
    std::chrono::milliseconds duration{0};
};

class Program
{
public:
    /* Starts it; one that cannot be executed ends with status 127. */
    Program(const std::string &path, const ProgramOptions &options);

    /* Kills it when nobody has waited for its end. */
    ~Program();
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; } /* until finish() */

    /* Whether it has not ended yet. */
    [[nodiscard]] bool is_running();

    /* Waits for its end and the end of its output; a missed deadline fails the test and kills it.  Once only.
     */
    [[nodiscard]] ProgramResult finish();

private:
    using Clock = std::chrono::steady_clock;

    [[noreturn]] void run_child(const std::string &path, const ProgramOptions &options, char *const *argv);
    bool read_output();
    bool wait_until_deadline(int *raw_status);

    pid_t pid_ = -1;
    Fd out_;
    Fd err_;
    Clock::time_point start_;
    Clock::time_point deadline_;
    ProgramResult result_;
};

/* Whether the process has become the program of this path, and has a file open whose name begins so. */
[[nodiscard]] bool has_open(pid_t process, const std::string &program, const std::string &path);

} // namespace kolmo::testing
