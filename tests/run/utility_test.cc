/*
 * The panel's utility in all its moods, as a whole run meets them.
 */
#include "tests/run/run_fixture.h"

#include <csignal>
#include <filesystem>

namespace kolmo::testing
{

namespace
{

const std::string leave_grandchild = "sleep 1000 & echo $! >/run/grandchild";

class UtilityRun : public RunTest
{
protected:
    /* The run's end when the utility has failed, with what it printed. */
    static std::vector<Said> failure(const std::string &out, const std::string &err)
    {
        return {printed(out), reported(utility_path + " execution failed:\n" + err),
                logged("Unable to re-initialize autoresponder's database")};
    }

    /* A run whose utility has left a process behind that outlives both. */
    static ProgramResult run_and_end_grandchild()
    {
        const ProgramResult result = run();
        const pid_t grandchild = std::stoi(read_file("/run/grandchild"));

        EXPECT_EQ(::kill(grandchild, SIGKILL), 0) << "it was to outlive the run";
        return result;
    }

    void expect_no_rebuild()
    {
        EXPECT_FALSE(std::filesystem::exists(responder_store));
        expect_handlers({});
    }
};

} // namespace

TEST_F(UtilityRun, IsRunWithInitDbOnly)
{
    write_utility("printf '%s\\n' \"$@\" >/run/arguments; " + stand_in);

    expect_run(0);
    EXPECT_EQ(read_file("/run/arguments"), "--init-db\n");
}

TEST_F(UtilityRun, IsWaitedForEvenIfTheParentIgnoredTheEndOfItsChildren)
{
    expect_result(run({.ignored = {SIGCHLD}}), 0);
}

/* A script does not see its argv[0]; ls(1) complains under that name. */
TEST_F(UtilityRun, IsCalledByItsPath)
{
    std::filesystem::remove(utility_path);
    std::filesystem::copy_file("/bin/ls", utility_path);

    expect_run(255, failure("", utility_path + ": unrecognized option '--init-db'\nTry '" + utility_path +
                                    " --help' for more information.\n"));
}

TEST_F(UtilityRun, GetsTheStandardInputOfTheRunAndNoOtherDescriptor)
{
    write_file("/run/input", "typed\n");
    write_utility("cat >/run/seen; ls /proc/self/fd >/run/descriptors; " + stand_in);

    expect_result(run({.input = "/run/input"}), 0);
    EXPECT_EQ(read_file("/run/seen"), "typed\n");
    EXPECT_EQ(read_file("/run/descriptors"), "0\n1\n2\n3\n"); /* 3: the listing's own */
}

TEST_F(UtilityRun, MissingUtilityEndsTheRun)
{
    (void)add_simple_domain("one.example");
    std::filesystem::remove(utility_path);

    expect_run(
        255, failure("", "fork_execv: execv(\"" + utility_path + "\") failed: No such file or directory\n"));
    expect_no_rebuild();
}

TEST_F(UtilityRun, UtilityThatMayNotBeExecutedEndsTheRun)
{
    write_file(utility_path, "#!/bin/sh\n", 0644);

    expect_run(255, failure("", "fork_execv: execv(\"" + utility_path + "\") failed: Permission denied\n"));
    expect_no_rebuild();
}

TEST_F(UtilityRun, FailureShowsBothOfItsStreams)
{
    (void)add_simple_domain("one.example");
    write_utility("echo to-out; echo to-err >&2; printf more; printf tail >&2; exit 1");

    expect_run(255, failure("to-out\nmore", "to-err\ntail"));
    expect_no_rebuild();
}

TEST_F(UtilityRun, SilentFailureIsReportedAllTheSame)
{
    write_utility("exit 3");

    expect_run(255, failure("", ""));
    expect_no_rebuild();
}

/* That a signal ended it is said at warning only, and warnings are masked. */
TEST_F(UtilityRun, KilledUtilityEndsTheRun)
{
    write_utility("echo dying >&2; kill -KILL $$");

    expect_run(255, failure("", "dying\n"));
    expect_no_rebuild();
}

TEST_F(UtilityRun, FailureShowsAMegabyteWhole)
{
    write_utility(
        "head -c 1048576 /dev/zero | tr '\\0' e >&2; head -c 1048576 /dev/zero | tr '\\0' o; exit 1");

    expect_run(255, failure(std::string(1048576, 'o'), std::string(1048576, 'e')));
}

TEST_F(UtilityRun, NothingThatASuccessPrintedIsShown)
{
    (void)add_simple_domain("one.example");
    write_utility(stand_in + "; echo done; echo a warning >&2; head -c 1048576 /dev/zero | tr '\\0' o");

    expect_run(0);
    expect_responders({reply_row("info@one.example")});
}

/* A daemon that it leaves behind holds the pipes; what counts is that the utility itself has ended. */
TEST_F(UtilityRun, GrandchildThatHoldsThePipesDoesNotHoldUpTheRun)
{
    (void)add_simple_domain("one.example");
    write_utility(stand_in + "; " + leave_grandchild);

    const ProgramResult result = run_and_end_grandchild();

    expect_result(result, 0);
    expect_responders({reply_row("info@one.example")});
}

TEST_F(UtilityRun, FailureWithAGrandchildShowsWhatWasPrinted)
{
    write_utility(leave_grandchild + "; echo to-out; echo to-err >&2; exit 1");

    expect_result(run_and_end_grandchild(), 255, failure("to-out\n", "to-err\n"));
}

/* Nothing was ever read then, which is not the same as an empty text. */
TEST_F(UtilityRun, SilentFailureWithAGrandchildIsReportedWithoutOutput)
{
    for (const char *end : {"exit 1", "kill -KILL $$"}) {
        write_utility(leave_grandchild + "; " + end);

        expect_result(run_and_end_grandchild(), 255,
                      {reported(utility_path + " execution failed (no output)"),
                       logged("Unable to re-initialize autoresponder's database")});
    }
}

TEST_F(UtilityRun, SlowUtilityIsWaitedFor)
{
    (void)add_simple_domain("one.example");
    write_utility("sleep 1.3; " + stand_in);

    expect_run(0);
    expect_responders({reply_row("info@one.example")});
}

} // namespace kolmo::testing
