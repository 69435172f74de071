/* Starting a child, waiting for it, and feeding a shell command, with failing calls. */
#include "exec/child_process.h"

#include <cerrno>
#include <string>

#include <unistd.h>

#include "tests/exec/exec_support.h"
#include "tests/exec/process_faults.h"

namespace kolmo::testing
{

namespace
{

using ForkExecvPipesFaults = ExecTest;
using WaitChildFaults = ExecTest;
using ExecWithInputFaults = ExecTest;

TEST_F(ForkExecvPipesFaults, FailedForkEndsTheProcess)
{
    EXPECT_EXIT(
        {
            const Fault fault(Call::fork, 1, EAGAIN);
            (void)fork_execv_pipes(0, 1, 2, helper, Orders({}));
        },
        ::testing::ExitedWithCode(1),
        "^fork_execv_pipes: fork\\(\\) failed\nSystem error 11: Resource temporarily unavailable\n$");
}

TEST_F(ForkExecvPipesFaults, NullDeviceThatCannotBeOpenedEndsTheChildWith255)
{
    const Observed seen = observe([] {
        const Fault fault(Call::open, 1, ENODEV);
        return raw_status(fork_execv_pipes(0, -1, 2, helper, Orders({})));
    });

    EXPECT_EQ(seen.result, 255 << 8);
    EXPECT_EQ(seen.err, "fork_execv: dup() failed: No such device\n");
}

TEST_F(ForkExecvPipesFaults, StreamThatCannotBeInstalledEndsTheChildWith255)
{
    const Observed seen = observe([] {
        const Fault fault(Call::dup2, 1, EBUSY);
        return raw_status(fork_execv_pipes(0, -1, 2, helper, Orders({})));
    });

    EXPECT_EQ(seen.result, 255 << 8);
    EXPECT_EQ(seen.err, "fork_execv: dup() failed: Device or resource busy\n");
}

TEST_F(WaitChildFaults, ZeroIsUnexpected)
{
    const FakeWait wait(0, 0, 0);

    EXPECT_EQ(wait_child(4242, "program", nullptr), -1);
    EXPECT_EQ(log.take_one(), "3 waitpid(4242) for 'program' process returned unexpected 0 code");
}

TEST_F(WaitChildFaults, ContinuedChildIsAWarning)
{
    const FakeWait wait(4242, 0xffff, 0);
    int status = 0;

    EXPECT_EQ(wait_child(4242, "program", &status), -1);
    EXPECT_EQ(status, 0xffff);
    EXPECT_EQ(log.take_one(), "4 waitpid(4242)=4242: process 'program' continued");
}

TEST_F(WaitChildFaults, MessagesShowTheIdThatWaitpidGave)
{
    const FakeWait wait(17, 9, 0);

    EXPECT_EQ(wait_child(4242, nullptr, nullptr), -1);
    EXPECT_EQ(log.take_one(), "4 waitpid(4242)=17: process '<unknown>' killed by signal 9");
}

TEST_F(WaitChildFaults, OnlyAFailedWaitIsAFailureWhateverErrnoSays)
{
    const FakeWait wait(4242, 3 << 8, EINTR);

    EXPECT_EQ(wait_child(4242, "program", nullptr), 3);
}

TEST_F(WaitChildFaults, NegativeIdIsNotWaitedFor)
{
    const Fault fault(Call::waitpid, 1, EINVAL);

    EXPECT_EQ(wait_child(-1, "program", nullptr), -1);
    EXPECT_FALSE(Fault::has_fired());
    EXPECT_EQ(log.take_one(), "3 fork before spawning 'program' failed");
}

TEST_F(ExecWithInputFaults, CommandThatCannotBeStartedIsReported)
{
    const Fault fault(Call::popen, 1, EMFILE);
    const Observed seen = observe([] { return exec_with_input("exit 3", "input"); });

    EXPECT_EQ(seen.result, -1);
    EXPECT_EQ(seen.err,
              "Failed to execute command with input: either pipe, fork or memory allocation failed.\n"
              "System error 24: Too many open files\n");
}

} // namespace

} // namespace kolmo::testing
