#include "tests/panel/fresh_process.h"

#include <cstdio>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace kolmo::testing
{

namespace
{

[[noreturn]] void run_body(const std::function<void()> &body)
{
    body();
    (void)std::fflush(nullptr);
    _exit(::testing::Test::HasFailure() ? 1 : 0);
}

} // namespace

void in_fresh_process(const std::function<void()> &body)
{
    (void)std::fflush(nullptr);
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0)
        run_body(body);

    int status;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "the body failed in its own process";
}

} // namespace kolmo::testing
