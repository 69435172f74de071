/*
 * exec_support: what the tests of child processes have in common.
 */
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/types.h>

#include "common/owned.h"
#include "tests/support/log_capture.h"

namespace kolmo::testing
{

/* The program that the tests run, see child_helper.cc. */
extern const char *const helper;

/* An argument vector for the helper: its path and these words. */
class Orders
{
public:
    explicit Orders(const std::vector<const char *> &words);
    operator const char * const *() const { return argv_.data(); }

private:
    std::vector<const char *> argv_;
};

/* What a run returned, and what this process (and its children, by inheritance) showed meanwhile. */
struct Observed {
    int result;
    std::string err;
    std::string out;
};

/* The run starts with errno clear, as the program does. */
Observed observe(const std::function<int()> &run);

/* The open ones below `end`, asked one by one with fcntl: "0 1 2". */
std::string open_descriptors(int end = 4096);

/* A pipe as standard input, with nothing in it, whose other end only this process has. */
class HeldInput
{
public:
    HeldInput();
    ~HeldInput();
    HeldInput(const HeldInput &) = delete;
    HeldInput &operator=(const HeldInput &) = delete;

    /* Its end comes. */
    void release() { write_end_.reset(); }

private:
    Fd saved_;
    Fd write_end_;
};

/* Make every number from first to last an open descriptor. */
void fill_descriptors(int first, int last);

/* Close those of the standard streams whose bits are set. */
void close_streams(int bits);

/*
 * Run the body in a child process of its own, which may close and limit what it likes; its text comes back,
 * or "ended with status ..." when the body never returned.
 */
std::string in_child(const std::function<std::string()> &body);

/* The number behind `prefix` in a text; -1 when there is none. */
long number_after(const std::string &text, const std::string &prefix);

/* End a process that the test has left running, stopped or as a zombie, and reap it if it is a child. */
void end_process(long pid);

/* Wait for a child without a word. */
int raw_status(pid_t pid);

/* Until a child has ended, which leaves it to be waited for. */
void await_end();

/* Logs are heard, a test ends in time, and it leaves neither a child nor a descriptor behind. */
class ExecTest : public ::testing::Test
{
protected:
    ExecTest();
    ~ExecTest() override;

    LogCapture log;

private:
    std::string descriptors_;
};

} // namespace kolmo::testing
