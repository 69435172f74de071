/*
 * fake_child: a child process that the fuzzers make up, so that its output costs no process.
 *
 * A program that links this starts no child: whenever its parent looks for output the fake takes its next
 * step, on the real pipe, and it ends when there is none left.
 */
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kolmo::testing
{

constexpr pid_t fake_pid = 4711;

struct ChildStep {
    enum Kind { print_out, print_err, close_out, close_err, pause, interrupt, kinds } kind;
    std::string text; /* what is printed */
};

struct ChildPlan {
    std::vector<ChildStep> steps;
    int status = 0;     /* as waitpid(2) gives it */
    bool holds = false; /* something that it started keeps its output open after its end */
};

/* What the next child does; `plan` is kept until then. */
void plan_child(const ChildPlan &plan);

/* The end of a test: whether everything was done that was planned, and all pipes are closed again. */
void end_child();

} // namespace kolmo::testing
