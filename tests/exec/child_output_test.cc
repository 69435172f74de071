/* The runners that take a program's output, with real programs. */
#include "exec/child_output.h"

#include <csignal>
#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/owned.h"
#include "tests/exec/exec_support.h"

namespace kolmo::testing
{

namespace
{

struct Captured {
    int result = -2;
    OwnedText out;
    OwnedText err;
};

Captured run(const char *path, const char *const argv[])
{
    Captured done;
    char *out = nullptr;
    char *err = nullptr;

    done.result = fork_execv_getouterr(&out, &err, path, argv);
    done.out.reset(out);
    done.err.reset(err);
    return done;
}

/* The whole run in a line, for comparison; "null" is a text that does not exist. */
std::string shown(const Captured &done)
{
    return std::to_string(done.result) + " out=" + (done.out != nullptr ? done.out.get() : "null") +
           " err=" + (done.err != nullptr ? done.err.get() : "null");
}

std::string shown_run(std::initializer_list<const char *> words)
{
    return shown(run(helper, Orders(words)));
}

class ForkExecvGetouterr : public ExecTest
{
};
class ForkExecvGetout : public ExecTest
{
};
class ForkExecFd : public ExecTest
{
};

TEST_F(ForkExecvGetouterr, NothingPrintedGivesTwoEmptyTexts)
{
    EXPECT_EQ("0 out= err=", shown_run({}));
}

TEST_F(ForkExecvGetouterr, TenThousandBytesOfErrorAndStatusThreeArriveWhole)
{
    const Captured done = run(helper, Orders({"err", "10000", "exit", "3"}));

    EXPECT_EQ(3, done.result);
    EXPECT_EQ(std::string(10000, 'e'), done.err.get());
    EXPECT_STREQ("", done.out.get());
}

TEST_F(ForkExecvGetouterr, StreamsAreKeptApart)
{
    EXPECT_EQ("0 out=oo err=eee", shown_run({"out", "2", "err", "3"}));
}

TEST_F(ForkExecvGetouterr, AMegabyteOnBothStreamsArrivesWhole)
{
    const Captured done = run(helper, Orders({"err", "1048576", "out", "1048576"}));

    EXPECT_EQ(0, done.result);
    EXPECT_EQ(std::string(1048576, 'o'), done.out.get());
    EXPECT_EQ(std::string(1048576, 'e'), done.err.get());
}

TEST_F(ForkExecvGetouterr, ExitCodesAreTheResultUpTo255)
{
    EXPECT_EQ(1, run(helper, Orders({"exit", "1"})).result);
    EXPECT_EQ(255, run(helper, Orders({"exit", "255"})).result);
}

TEST_F(ForkExecvGetouterr, MissingProgramGives255AndTheExecvTextAlone)
{
    EXPECT_EQ("255 out= err=fork_execv: execv(\"/nonexistent/program\") failed: No such file or directory\n",
              shown(run("/nonexistent/program", Orders({}))));
}

TEST_F(ForkExecvGetouterr, ProgramKilledBySignalGivesMinusOneAndAWarning)
{
    const Captured done = run(helper, Orders({"out", "1", "signal", "9"}));
    const std::string line = log.take_one();

    EXPECT_EQ("-1 out=o err=", shown(done));
    const std::string pid = std::to_string(number_after(line, "waitpid("));
    EXPECT_EQ("4 waitpid(" + pid + ")=" + pid + ": process '" + helper + "' killed by signal 9", line);
}

TEST_F(ForkExecvGetouterr, SlowProgramIsWaitedForPastTheTimeout)
{
    EXPECT_EQ("4 out=oo err=", shown_run({"out", "1", "sleep", "1300", "out", "1", "exit", "4"}));
}

TEST_F(ForkExecvGetouterr, ProgramThatClosesItsOutputEarlyIsWaitedFor)
{
    EXPECT_EQ("5 out=o err=",
              shown_run({"out", "1", "close", "1", "close", "2", "sleep", "200", "exit", "5"}));
}

TEST_F(ForkExecvGetouterr, ProcessLeftBehindWithThePipesDoesNotKeepTheRunFromEnding)
{
    const Captured done = run(helper, Orders({"hold", "exit", "4"}));

    EXPECT_EQ(4, done.result);
    EXPECT_EQ(nullptr, done.err);
    ASSERT_NE(nullptr, done.out);
    end_process(number_after(done.out.get(), ""));
}

TEST_F(ForkExecvGetouterr, ProgramKilledWhileThePipesAreHeldGivesMinusOneWithoutALine)
{
    const Captured done = run(helper, Orders({"hold", "signal", "9"}));

    EXPECT_EQ(-1, done.result);
    ASSERT_NE(nullptr, done.out);
    end_process(number_after(done.out.get(), ""));
}

/* Past the time-out, after which the runner looks whether its program has ended. */
TEST_F(ForkExecvGetouterr, StoppedProgramThatKeepsItsOutputOpenIsWaitedForUntilItGoesOn)
{
    const char *const argv[] = {"sh", "-c", "(sleep 1.3; kill -CONT $$) & kill -STOP $$; exit 4", nullptr};

    EXPECT_EQ("4 out= err=", shown(run("/bin/sh", argv)));
}

TEST_F(ForkExecvGetouterr, StoppedProgramThatHasClosedItsOutputIsLoggedAndLeftStopped)
{
    const Captured done = run(helper, Orders({"out", "1", "close", "1", "close", "2", "stop"}));
    const std::string line = log.take_one();
    const long pid = number_after(line, "waitpid(");
    const std::string id = std::to_string(pid);

    EXPECT_EQ(0, waitpid(static_cast<pid_t>(pid), nullptr, WNOHANG)) << "it has ended";
    end_process(pid);
    EXPECT_EQ("-1 out=o err=", shown(done));
    EXPECT_EQ("4 waitpid(" + id + ")=" + id + ": process '" + helper + "' stopped by signal " +
                  std::to_string(SIGSTOP),
              line);
}

TEST_F(ForkExecvGetouterr, ProgramInheritsStandardInputAndNothingAboveTheStreams)
{
    const std::string seen = in_child([] {
        fill_descriptors(0, 0);
        fill_descriptors(3, 60);
        return shown_run({"fds"});
    });

    EXPECT_EQ(0U, seen.find("0 out=0 1 2 /dev/null pipe:[")) << seen;
}

TEST_F(ForkExecvGetouterr, StandardInputReachesTheProgram)
{
    EXPECT_EQ("0 out=o err=", in_child([] {
                  int ends[2];
                  if (pipe(ends) != 0 || write(ends[1], "o", 1) != 1 || dup2(ends[0], 0) != 0)
                      return std::string("no pipe");
                  close(ends[1]);
                  return shown_run({"input"});
              }));
}

TEST_F(ForkExecvGetouterr, StreamsThatWereClosedAtTheStartAreWiredAllTheSame)
{
    for (int closed = 1; closed < 8; closed++) {
        EXPECT_EQ("3 out=oo err=eee", in_child([closed] {
                      for (int fd = 0; fd <= 2; fd++) {
                          if ((closed & (1 << fd)) != 0)
                              close(fd);
                      }
                      return shown_run({"out", "2", "err", "3", "exit", "3"});
                  }))
            << "closed streams, as bits: " << closed;
    }
}

TEST_F(ForkExecvGetouterr, AThousandOpenDescriptorsAreSurvivedAndNotInherited)
{
    const std::string seen = in_child([] {
        fill_descriptors(3, 1002);
        return shown_run({"fds"});
    });

    EXPECT_EQ(0U, seen.find("0 out=0 1 2 ")) << seen;
}

TEST_F(ForkExecvGetouterr, DescriptorThatSelectCannotWatchEndsTheProcessAsAFailedPipe)
{
    rlimit limit = {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    ASSERT_GE(limit.rlim_max, 1100U) << "needs a hard limit above 1100 descriptors";
    limit.rlim_cur = 1100;

    EXPECT_EXIT(
        {
            (void)setrlimit(RLIMIT_NOFILE, &limit);
            fill_descriptors(3, 1050);
            (void)run(helper, Orders({}));
        },
        ::testing::ExitedWithCode(1),
        "^fork_execv_getouterr: pipe\\(\\) failed\nSystem error 24: Too many open files\n$");
}

TEST_F(ForkExecvGetout, StandardOutputIsCapturedAndStandardErrorInherited)
{
    OwnedText owned;
    const Observed seen = observe([&] {
        char *out = nullptr;
        const int result = fork_execv_getout(&out, helper, Orders({"out", "5000", "err", "3", "exit", "6"}));
        owned.reset(out);
        return result;
    });

    EXPECT_EQ(6, seen.result);
    EXPECT_EQ(std::string(5000, 'o'), owned.get());
    EXPECT_EQ("eee", seen.err);
}

TEST_F(ForkExecvGetout, NothingPrintedGivesAnEmptyText)
{
    char *out = nullptr;
    const int result = fork_execv_getout(&out, helper, Orders({}));
    const OwnedText owned(out);

    EXPECT_EQ(0, result);
    EXPECT_STREQ("", out);
}

TEST_F(ForkExecvGetout, MissingProgramComplainsOnTheInheritedStandardError)
{
    OwnedText owned;
    const Observed seen = observe([&] {
        char *out = nullptr;
        const int result = fork_execv_getout(&out, "/nonexistent/program", Orders({}));
        owned.reset(out);
        return result;
    });

    EXPECT_EQ(255, seen.result);
    EXPECT_STREQ("", owned.get());
    EXPECT_EQ("fork_execv: execv(\"/nonexistent/program\") failed: No such file or directory\n", seen.err);
}

TEST_F(ForkExecvGetout, ProcessLeftBehindWithThePipeDoesNotKeepTheRunFromEnding)
{
    char *out = nullptr;
    const int result = fork_execv_getout(&out, helper, Orders({"close", "2", "hold", "exit", "4"}));
    const OwnedText owned(out);

    EXPECT_EQ(4, result);
    ASSERT_NE(nullptr, out);
    end_process(number_after(out, ""));
}

TEST_F(ForkExecvGetout, ProgramKilledBySignalIsLogged)
{
    char *out = nullptr;
    const int result = fork_execv_getout(&out, helper, Orders({"signal", "15"}));
    const OwnedText owned(out);

    EXPECT_EQ(-1, result);
    EXPECT_NE(std::string::npos, log.take_one().find("killed by signal 15"));
}

Observed run_fd(int fd_in, int fd_out, const char *path, const char *const argv[])
{
    return observe([&] {
        errno = EPERM; /* an older failure, which is none of the program's */
        return fork_exec_fd(fd_in, fd_out, path, argv);
    });
}

TEST_F(ForkExecFd, StandardStreamsOfTheCallerAreRefused)
{
    const int refused[][2] = {{0, -1}, {-1, 1}, {0, 1}};

    for (const auto &fds : refused) {
        const Observed seen = observe([&] {
            return fork_exec_fd(fds[0], fds[1], helper, Orders({"say", "started"}));
        });
        EXPECT_EQ(-1, seen.result);
        EXPECT_EQ("values 0,1,2 not allowed for variables fd_in & fd_out\n", seen.err);
        EXPECT_EQ(seen.err, seen.out);
    }
}

TEST_F(ForkExecFd, StandardErrorIsReportedOnBothStreams)
{
    const Observed done = run_fd(-1, -1, helper, Orders({"out", "4", "say", "trouble", "exit", "7"}));

    EXPECT_EQ(7, done.result);
    EXPECT_EQ("trouble\n", done.err);
    EXPECT_EQ("trouble\n", done.out);
}

TEST_F(ForkExecFd, LongErrorOutputIsPassedOnInPiecesOfUpTo4095Bytes)
{
    const Observed done = run_fd(-1, -1, helper, Orders({"err", "8190"}));
    std::string piece(4096, 'e');
    piece.back() = '\n';

    EXPECT_EQ(0, done.result);
    EXPECT_EQ(piece + piece, done.err);
}

TEST_F(ForkExecFd, ErrorOutputIsPassedOnAtOnce)
{
    int input[2];
    int screen[2];
    ASSERT_EQ(0, pipe2(input, O_CLOEXEC));
    ASSERT_EQ(0, pipe2(screen, O_CLOEXEC));
    const pid_t runner = fork();
    if (runner == 0) {
        close(input[1]);
        dup2(screen[1], STDERR_FILENO);
        _exit(fork_exec_fd(input[0], -1, helper, Orders({"say", "ready", "input", "exit", "9"})));
    }
    char heard[6] = {};

    EXPECT_EQ(5, read(screen[0], heard, 5)); /* the program still waits for its input */
    EXPECT_STREQ("ready", heard);
    for (int fd : {input[0], input[1], screen[0], screen[1]})
        close(fd);
    EXPECT_EQ(9 << 8, raw_status(runner));
}

TEST_F(ForkExecFd, DescriptorsBecomeTheStreamsAndNoOtherIsInherited)
{
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    const Fd read_end(ends[0]);
    Fd write_end(ends[1]);
    const Fd null(open("/dev/null", O_RDWR));

    EXPECT_EQ(0, fork_exec_fd(null.get(), write_end.get(), helper, Orders({"fds"})));
    EXPECT_EQ(0, fcntl(write_end.get(), F_GETFD)) << "the caller's own stays open";
    char list[256] = {};
    EXPECT_GT(read(read_end.get(), list, sizeof list - 1), 0);
    EXPECT_EQ(0U, std::string(list).find("0 1 2 /dev/null pipe:[")) << list;
}

TEST_F(ForkExecFd, MinusOneStandsForTheNullDevice)
{
    /* The list goes to standard output, so one stream is a file and the other is the null device. */
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    const Fd read_end(ends[0]);
    const Fd write_end(ends[1]);
    char list[256] = {};

    EXPECT_EQ(0, fork_exec_fd(-1, write_end.get(), helper, Orders({"fds"})));
    EXPECT_GT(read(read_end.get(), list, sizeof list - 1), 0);
    EXPECT_EQ(0U, std::string(list).find("0 1 2 /dev/null ")) << list;
    EXPECT_EQ(0, fork_exec_fd(-1, -1, helper, Orders({"out", "10"}))) << "has to have somewhere to write to";
}

TEST_F(ForkExecFd, MissingProgramIsToldWithADot)
{
    const Observed done = run_fd(-1, -1, "/nonexistent/program", Orders({}));

    EXPECT_EQ(255, done.result);
    EXPECT_EQ("Error occured during execv():\nNo such file or directory.\n", done.err);
}

TEST_F(ForkExecFd, BadArgumentAddressIsToldWithItsLikelyReason)
{
    const char *const argv[] = {helper, reinterpret_cast<const char *>(1), nullptr};
    const Observed done = run_fd(-1, -1, helper, argv);

    EXPECT_EQ(255, done.result);
    EXPECT_EQ("Error occured during execv():\nBad address, possible reason - NULL parameter is absent in "
              "util_exec(path, arg1, arg2, NULL) call.\n",
              done.err);
}

TEST_F(ForkExecFd, DescriptorThatIsNotOpenEndsTheChildWith255)
{
    const Observed done = run_fd(999, -1, helper, Orders({}));

    EXPECT_EQ(255, done.result);
    EXPECT_EQ("fork_execv: dup() failed: Bad file descriptor\n", done.err);
}

TEST_F(ForkExecFd, ProgramKilledBySignalIsReported)
{
    const Observed done = run_fd(-1, -1, helper, Orders({"signal", "9"}));
    const long pid = number_after(done.err, "pid ");

    EXPECT_EQ(-1, done.result);
    EXPECT_EQ("The child process with pid " + std::to_string(pid) + " killed by signal 9\n", done.err);
}

TEST_F(ForkExecFd, StoppedProgramIsReportedAndLeftStopped)
{
    const Observed done = run_fd(-1, -1, helper, Orders({"close", "2", "stop"}));
    const long pid = number_after(done.err, "pid ");

    end_process(pid);
    EXPECT_EQ(-1, done.result);
    EXPECT_EQ("The child process with pid " + std::to_string(pid) + " stopped by signal " +
                  std::to_string(SIGSTOP) + "\n",
              done.err);
}

TEST_F(ForkExecFd, StreamsThatWereClosedAtTheStartAreWiredAllTheSame)
{
    EXPECT_EQ("3", in_child([] {
                  close(0);
                  close(1);
                  return std::to_string(fork_exec_fd(-1, -1, helper, Orders({"out", "3", "exit", "3"})));
              }));
}

} // namespace

} // namespace kolmo::testing
