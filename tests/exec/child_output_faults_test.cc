/* The runners that take a program's output, with failing calls. */
#include "exec/child_output.h"

#include <cerrno>
#include <string>

#include "common/owned.h"
#include "tests/exec/exec_support.h"
#include "tests/exec/process_faults.h"
#include "tests/support/alloc_faults.h"
#include "tests/support/output_capture.h"

namespace kolmo::testing
{

namespace
{

class ForkExecvGetouterrFaults : public ExecTest
{
};
class ForkExecvGetoutFaults : public ExecTest
{
};
class ForkExecFdFaults : public ExecTest
{
};

/* The whole run in a line: "3 out=... err=...", with "null" for a text that does not exist. */
std::string shown_run(const char *path, const char *const argv[])
{
    char *out = nullptr;
    char *err = nullptr;
    const int result = fork_execv_getouterr(&out, &err, path, argv);
    const OwnedText owned_out(out);
    const OwnedText owned_err(err);

    return std::to_string(result) + " out=" + (out != nullptr ? out : "null") +
           " err=" + (err != nullptr ? err : "null");
}

std::string shown_run(std::initializer_list<const char *> words)
{
    return shown_run(helper, Orders(words));
}

TEST_F(ForkExecvGetouterrFaults, FailedPipeEndsTheProcess)
{
    for (int nth : {1, 2}) {
        EXPECT_EXIT(
            {
                const Fault fault(Call::pipe, nth, ENFILE);
                (void)shown_run({});
            },
            ::testing::ExitedWithCode(1),
            "^fork_execv_getouterr: pipe\\(\\) failed\nSystem error 23: Too many open files in system\n$");
    }
}

TEST_F(ForkExecvGetouterrFaults, FailedNonBlockingModeEndsTheProcess)
{
    for (int nth : {1, 2}) {
        EXPECT_EXIT(
            {
                const Fault fault(Call::fcntl, nth, EBADF);
                (void)shown_run({});
            },
            ::testing::ExitedWithCode(1),
            "^fork_execv_getouterr: fcntl\\(O_NONBLOCK\\) failed\nSystem error 9: Bad file descriptor\n$");
    }
}

TEST_F(ForkExecvGetouterrFaults, FailedForkEndsTheProcess)
{
    EXPECT_EXIT(
        {
            const Fault fault(Call::fork, 1, EAGAIN);
            (void)shown_run({});
        },
        ::testing::ExitedWithCode(1),
        "^fork_execv_pipes: fork\\(\\) failed\nSystem error 11: Resource temporarily unavailable\n$");
}

TEST_F(ForkExecvGetouterrFaults, MissingMemoryEndsTheProcess)
{
    for (int nth : {1, 2}) {
        EXPECT_EXIT(
            {
                const AllocFaults faults(nth);
                (void)shown_run({"out", "4000"});
            },
            ::testing::ExitedWithCode(1),
            "^Cannot allocate memory\nSystem error 12: Cannot allocate memory\n$");
    }
}

TEST_F(ForkExecvGetouterrFaults, FailedReadIsToldEndsThatTextAndNothingElse)
{
    const Fault fault(Call::read, 1, EIO);
    std::string run;
    const Output shown = output_of([&] {
        run = shown_run({"out", "1", "sleep", "200", "err", "2", "exit", "3"});
    });

    EXPECT_EQ("3 out= err=ee", run);
    EXPECT_EQ("fork_exec*: read(pipe) failed: Input/output error\n", shown.err);
}

TEST_F(ForkExecvGetouterrFaults, InterruptedReadIsAFailureLikeAnyOther)
{
    const Fault fault(Call::read, 1, EINTR);
    std::string run;
    const Output shown = output_of([&] {
        run = shown_run({"out", "1", "sleep", "200", "err", "2", "exit", "3"});
    });

    EXPECT_EQ("3 out= err=ee", run);
    EXPECT_EQ("fork_exec*: read(pipe) failed: Interrupted system call\n", shown.err);
}

TEST_F(ForkExecvGetouterrFaults, ReadThatWouldBlockIsTriedAgain)
{
    const Fault fault(Call::read, 1, EAGAIN);
    std::string run;
    const Output shown = output_of([&] { run = shown_run({"out", "2"}); });

    EXPECT_EQ("0 out=oo err=", run);
    EXPECT_TRUE(Fault::has_fired());
    EXPECT_EQ("", shown.err);
}

TEST_F(ForkExecvGetouterrFaults, FailedSelectWithARunningChildIsRepeated)
{
    const Fault fault(Call::select, 1, EINTR);

    EXPECT_EQ("5 out=oo err=", shown_run({"sleep", "500", "out", "2", "exit", "5"}));
    EXPECT_TRUE(Fault::has_fired());
}

TEST_F(ForkExecvGetouterrFaults, TimeoutAfterTheEndGivesTheExitCodeAndLosesWhatIsUnread)
{
    const Fault fault(Call::select, 1, 0, await_end);

    EXPECT_EQ("3 out=null err=null", shown_run({"out", "2", "err", "2", "exit", "3"}));
    EXPECT_TRUE(Fault::has_fired());
}

TEST_F(ForkExecvGetouterrFaults, FailedSelectAfterTheEndGivesTheExitCode)
{
    const Fault fault(Call::select, 1, EBADF, await_end); /* its errno is not the one that counts */

    EXPECT_EQ("3 out=null err=null", shown_run({"exit", "3"}));
    EXPECT_TRUE(Fault::has_fired());
}

TEST_F(ForkExecvGetouterrFaults, TimeoutAfterASignalGivesMinusOneWithoutALine)
{
    const Fault fault(Call::select, 1, 0, await_end);

    EXPECT_EQ("-1 out=null err=null", shown_run({"signal", "9"}));
    EXPECT_TRUE(Fault::has_fired());
}

/* The result when the look for a child that has ended gives this, and reap the child. */
std::string result_of_look(pid_t result, int status, int error)
{
    const Fault fault(Call::select, 1, 0, await_end);
    std::string run;

    {
        const FakeWait wait(result, status, error);
        run = shown_run({});
    }
    (void)raw_status(-1);
    return run;
}

TEST_F(ForkExecvGetouterrFaults, LookThatSetsErrnoGivesMinusOne)
{
    EXPECT_EQ("-1 out=null err=null", result_of_look(-1, 0, ECHILD));
    EXPECT_EQ("-1 out=null err=null", result_of_look(4242, 3 << 8, EINTR));
    EXPECT_EQ("3 out=null err=null", result_of_look(4242, 3 << 8, 0));
}

TEST_F(ForkExecvGetouterrFaults, EverySelectHasASecondAndNonBlockingPipes)
{
    const SelectWatch watch;

    EXPECT_EQ("0 out=ooo err=",
              shown_run({"out", "1", "sleep", "100", "out", "1", "sleep", "100", "out", "1"}));
    EXPECT_GE(watch.calls.size(), 2U);
    for (const SelectWatch::Seen &call : watch.calls) {
        EXPECT_EQ(1000, call.timeout);
        EXPECT_FALSE(call.is_blocking);
    }
}

TEST_F(ForkExecvGetouterrFaults, StandardErrorThatCannotBeInstalledIsToldOnTheInheritedOne)
{
    std::string run;
    const Output shown = output_of([&] {
        const Fault fault(Call::dup2, 2, EBUSY); /* standard error's: the words go to the inherited one */
        run = shown_run({});
    });

    EXPECT_EQ("255 out= err=", run);
    EXPECT_EQ("fork_execv: dup() failed: Device or resource busy\n", shown.err);
}

TEST_F(ForkExecvGetoutFaults, FailedPipeEndsTheProcessWithTheSharedText)
{
    EXPECT_EXIT(
        {
            const Fault fault(Call::pipe, 1, EMFILE);
            char *out = nullptr;
            (void)fork_execv_getout(&out, helper, Orders({}));
        },
        ::testing::ExitedWithCode(1),
        "^fork_execv_getouterr: pipe\\(\\) failed\nSystem error 24: Too many open files\n$");
}

TEST_F(ForkExecvGetoutFaults, FailedNonBlockingModeEndsTheProcessWithTheSharedText)
{
    EXPECT_EXIT(
        {
            const Fault fault(Call::fcntl, 1, EBADF);
            char *out = nullptr;
            (void)fork_execv_getout(&out, helper, Orders({}));
        },
        ::testing::ExitedWithCode(1), "^fork_execv_getouterr: fcntl\\(O_NONBLOCK\\) failed\n");
}

TEST_F(ForkExecvGetoutFaults, OnlyOnePipeIsMade)
{
    const Fault fault(Call::pipe, 2, EMFILE);
    char *out = nullptr;

    EXPECT_EQ(0, fork_execv_getout(&out, helper, Orders({})));
    const OwnedText owned(out);
    EXPECT_FALSE(Fault::has_fired());
}

TEST_F(ForkExecFdFaults, FailedPipeEndsTheProcess)
{
    EXPECT_EXIT(
        {
            const Fault fault(Call::pipe, 1, EMFILE);
            (void)fork_exec_fd(-1, -1, helper, Orders({}));
        },
        ::testing::ExitedWithCode(1),
        "^fork_exec_fd pipe\\(\\): Too many open files\nSystem error 24: Too many open files\n$");
}

TEST_F(ForkExecFdFaults, FailedForkEndsTheProcess)
{
    EXPECT_EXIT(
        {
            const Fault fault(Call::fork, 1, ENOMEM);
            (void)fork_exec_fd(-1, -1, helper, Orders({}));
        },
        ::testing::ExitedWithCode(1),
        "^Error occured during fork\\(\\):\nCannot allocate memory\n"
        "System error 12: Cannot allocate memory\n$");
}

TEST_F(ForkExecFdFaults, FailedWaitIsReported)
{
    const Observed seen = observe([] {
        const Fault fault(Call::waitpid, 1, ECHILD);
        return fork_exec_fd(-1, -1, helper, Orders({}));
    });
    const long pid = number_after(seen.err, "pid: ");

    EXPECT_EQ(-1, seen.result);
    EXPECT_EQ("Error occured during waiting the child process with pid: " + std::to_string(pid) +
                  ": No child processes\n\nSystem error 10: No child processes\n",
              seen.err);
    end_process(pid);
}

TEST_F(ForkExecFdFaults, WordsForAProgramThatCannotBeExecutedAreOneWriteAndOneReport)
{
    const WritesShown shown;
    const Observed seen = observe([] { return fork_exec_fd(-1, -1, "/nonexistent", Orders({})); });

    EXPECT_EQ(255, seen.result);
    EXPECT_EQ("[Error occured during execv():\nNo such file or directory.\n]\n", seen.err);
}

TEST_F(ForkExecFdFaults, FailedReadIsToldAndTheProgramWaitedFor)
{
    const Fault fault(Call::read, 1, EIO);
    const Observed seen = observe([] { return fork_exec_fd(-1, -1, helper, Orders({"exit", "6"})); });

    EXPECT_EQ(6, seen.result);
    EXPECT_EQ("fork_exec*: read(pipe) failed: Input/output error\n", seen.err);
}

TEST_F(ForkExecFdFaults, RefusedDescriptorsStartNothing)
{
    const ForkCount forks;

    EXPECT_EQ(-1, observe([] { return fork_exec_fd(0, 1, helper, Orders({})); }).result);
    EXPECT_EQ(0, forks.count());
}

} // namespace

} // namespace kolmo::testing
