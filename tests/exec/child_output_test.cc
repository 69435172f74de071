/* The runners that take a program's output: real programs, and calls that fail. */
#include "exec/child_output.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/owned.h"
#include "exec/output_pipe.h"
#include "tests/exec/exec_support.h"
#include "tests/exec/process_faults.h"
#include "tests/support/alloc_faults.h"
#include "tests/support/output_capture.h"

namespace kolmo::testing
{

namespace
{

using ::testing::ExitedWithCode;
using Words = std::vector<const char *>;

struct Captured {
    int result = -2;
    OwnedText out;
    OwnedText err;
};

/* The runner of both texts. */
Captured run_both(const char *path, const char *const argv[])
{
    char *out = nullptr;
    char *err = nullptr;
    const int result = fork_execv_getouterr(&out, &err, path, argv);

    return {result, OwnedText(out), OwnedText(err)};
}

/* The runner of standard output alone. */
Captured run_out(const char *path, const char *const argv[])
{
    char *out = nullptr;
    const int result = fork_execv_getout(&out, path, argv);

    return {result, OwnedText(out), nullptr};
}

/* The whole run in a line, for comparison; "null" is a text that does not exist. */
std::string shown(const Captured &done)
{
    return std::to_string(done.result) + " out=" + (done.out != nullptr ? done.out.get() : "null") +
           " err=" + (done.err != nullptr ? done.err.get() : "null");
}

std::string shown_run(const Words &words)
{
    return shown(run_both(helper, Orders(words)));
}

/* What the program sees that is started among these open descriptors: its own, and where 0 to 2 lead. */
std::string descriptors_seen(int first, int last)
{
    return in_child([=] {
        fill_descriptors(0, 0);
        fill_descriptors(first, last);
        return shown_run({"fds"});
    });
}

using ForkExecvGetouterr = ExecTest;
using ForkExecvGetout = ExecTest;
using ForkExecFd = ExecTest;

TEST_F(ForkExecvGetouterr, ExitCodeAndBothTextsArriveWhole)
{
    const std::string many_o(1048576, 'o');
    const std::string many_e(1048576, 'e');
    const struct {
        Words words;
        std::string run;
    } rows[] = {
        {{}, "0 out= err="},
        {{"exit", "1"}, "1 out= err="},
        {{"exit", "255"}, "255 out= err="},
        {{"out", "2", "err", "3"}, "0 out=oo err=eee"},
        {{"err", "10000", "exit", "3"}, "3 out= err=" + std::string(10000, 'e')},
        {{"err", "1048576", "out", "1048576"}, "0 out=" + many_o + " err=" + many_e},
        {{"out", "1", "close", "1", "close", "2", "sleep", "200", "exit", "5"}, "5 out=o err="},
    };

    for (const auto &row : rows)
        EXPECT_EQ(shown_run(row.words), row.run);
}

/* One select has met its time-out, for there is one output and then none. */
TEST_F(ForkExecvGetouterr, ProgramThatIsSilentForLongIsWaitedFor)
{
    HeldInput input;
    SelectWatch watch;

    watch.on_call = [&] {
        if (watch.calls.size() == 3)
            input.release();
    };
    EXPECT_EQ(shown_run({"out", "1", "input", "out", "1", "exit", "4"}), "4 out=oo err=");
}

TEST_F(ForkExecvGetouterr, MissingProgramGives255AndTheExecvTextAlone)
{
    EXPECT_EQ(shown(run_both("/nonexistent/program", Orders({}))),
              "255 out= err=fork_execv: execv(\"/nonexistent/program\") failed: No such file or directory\n");
}

TEST_F(ForkExecvGetouterr, ProgramKilledBySignalGivesMinusOneAndAWarning)
{
    EXPECT_EQ(shown_run({"out", "1", "signal", "9"}), "-1 out=o err=");
    const std::string line = log.take_one();
    const std::string pid = std::to_string(number_after(line, "waitpid("));
    EXPECT_EQ(line, "4 waitpid(" + pid + ")=" + pid + ": process '" + helper + "' killed by signal 9");
}

TEST_F(ForkExecvGetouterr, ProcessLeftBehindWithThePipesDoesNotKeepTheRunFromEnding)
{
    const Captured done = run_both(helper, Orders({"hold", "exit", "4"}));

    EXPECT_EQ(done.result, 4);
    EXPECT_EQ(done.err, nullptr);
    ASSERT_NE(done.out, nullptr);
    end_process(number_after(done.out.get(), ""));
}

TEST_F(ForkExecvGetouterr, ProgramKilledWhileThePipesAreHeldGivesMinusOneWithoutALine)
{
    const Captured done = run_both(helper, Orders({"hold", "signal", "9"}));

    EXPECT_EQ(done.result, -1);
    ASSERT_NE(done.out, nullptr);
    end_process(number_after(done.out.get(), ""));
}

/* Past the time-out, after which the runner looks whether its program has ended. */
TEST_F(ForkExecvGetouterr, StoppedProgramThatKeepsItsOutputOpenIsWaitedForUntilItGoesOn)
{
    const char *const argv[] = {"sh", "-c",
                                "exec 3<&0; (exec >&- 2>&-; read x <&3; while kill -CONT $$; do sleep 0.1; "
                                "done) & kill -STOP $$; exit 4",
                                nullptr};
    HeldInput input;
    SelectWatch watch;

    watch.on_call = [&] {
        if (watch.calls.size() == 2)
            input.release();
    };
    EXPECT_EQ(shown(run_both("/bin/sh", argv)), "4 out= err=");
}

TEST_F(ForkExecvGetouterr, StoppedProgramThatHasClosedItsOutputIsLoggedAndLeftStopped)
{
    const Captured done = run_both(helper, Orders({"out", "1", "close", "1", "close", "2", "stop"}));
    const std::string line = log.take_one();
    const long pid = number_after(line, "waitpid(");
    const std::string id = std::to_string(pid);

    EXPECT_EQ(waitpid(static_cast<pid_t>(pid), nullptr, WNOHANG), 0) << "it has ended";
    end_process(pid);
    EXPECT_EQ(shown(done), "-1 out=o err=");
    EXPECT_EQ(line, "4 waitpid(" + id + ")=" + id + ": process '" + helper + "' stopped by signal " +
                        std::to_string(SIGSTOP));
}

TEST_F(ForkExecvGetouterr, ProgramInheritsStandardInputAndNothingAboveTheStreams)
{
    for (const int last : {60, 1002}) {
        const std::string seen = descriptors_seen(3, last);

        EXPECT_EQ(seen.find("0 out=0 1 2 /dev/null pipe:["), 0U) << seen;
    }
}

TEST_F(ForkExecvGetouterr, StandardInputReachesTheProgram)
{
    EXPECT_EQ(in_child([] {
                  int ends[2];
                  if (pipe(ends) != 0 || write(ends[1], "o", 1) != 1 || dup2(ends[0], 0) != 0)
                      return std::string("no pipe");
                  close(ends[1]);
                  return shown_run({"input"});
              }),
              "0 out=o err=");
}

TEST_F(ForkExecvGetouterr, StreamsThatWereClosedAtTheStartAreWiredAllTheSame)
{
    for (int closed = 1; closed < 8; closed++) {
        EXPECT_EQ(in_child([closed] {
                      close_streams(closed);
                      return shown_run({"out", "2", "err", "3", "exit", "3"});
                  }),
                  "3 out=oo err=eee")
            << "closed streams, as bits: " << closed;
    }
}

/* What becomes of a run whose pipe's read end is this descriptor. */
void run_with_read_end(int fd)
{
    rlimit limit = {};

    (void)getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = FD_SETSIZE + 100;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
        std::abort();
    fill_descriptors(3, fd - 1);
    const Captured done = run_out(helper, Orders({"out", "2", "exit", "3"}));
    (void)std::fprintf(stderr, "%s", shown(done).c_str());
    _exit(0);
}

TEST_F(ForkExecvGetout, LastDescriptorThatSelectCanWatchIsUsed)
{
    EXPECT_EXIT(run_with_read_end(FD_SETSIZE - 1), ExitedWithCode(0), "^3 out=oo err=null$");
}

TEST_F(ForkExecvGetout, DescriptorThatSelectCannotWatchEndsTheProcessAsAFailedPipe)
{
    EXPECT_EXIT(run_with_read_end(FD_SETSIZE), ExitedWithCode(1),
                "^fork_execv_getouterr: pipe\\(\\) failed\nSystem error 24: Too many open files\n$");
}

TEST_F(ForkExecvGetouterr, FailedReadIsToldEndsThatTextAndNothingElse)
{
    for (const int error : {EIO, EINTR}) {
        const Fault fault(Call::read, 1, error);
        std::string run;
        const Output told = output_of([&] {
            run = shown_run({"out", "1", "sleep", "200", "err", "2", "exit", "3"});
        });

        EXPECT_EQ(run, "3 out= err=ee");
        EXPECT_EQ(told.err, std::string("fork_exec*: read(pipe) failed: ") + std::strerror(error) + '\n');
    }
}

TEST_F(ForkExecvGetouterr, ReadThatWouldBlockIsTriedAgain)
{
    const Fault fault(Call::read, 1, EAGAIN);
    std::string run;
    const Output told = output_of([&] { run = shown_run({"out", "2"}); });

    EXPECT_EQ(run, "0 out=oo err=");
    EXPECT_TRUE(Fault::has_fired());
    EXPECT_EQ(told.err, "");
}

TEST_F(ForkExecvGetouterr, FailedSelectWithARunningChildIsRepeated)
{
    const Fault fault(Call::select, 1, EINTR);
    HeldInput input;
    SelectWatch watch;

    watch.on_call = [&] {
        if (watch.calls.size() == 2)
            input.release();
    };
    EXPECT_EQ(shown_run({"input", "out", "2", "exit", "5"}), "5 out=oo err=");
    EXPECT_TRUE(Fault::has_fired());
}

/* With a time-out or a failure, whose errno is not the one that counts; the exit code is the result. */
TEST_F(ForkExecvGetouterr, SelectWithoutOutputAfterTheEndLosesWhatIsUnread)
{
    const struct {
        int error;
        Words words;
        const char *run;
    } rows[] = {{0, {"out", "2", "err", "2", "exit", "3"}, "3 out=null err=null"},
                {EBADF, {"exit", "3"}, "3 out=null err=null"},
                {EINTR, {"exit", "3"}, "3 out=null err=null"},
                {0, {"signal", "9"}, "-1 out=null err=null"}};

    for (const auto &row : rows) {
        const Fault fault(Call::select, 1, row.error, await_end);

        EXPECT_EQ(shown_run(row.words), row.run);
        EXPECT_TRUE(Fault::has_fired());
    }
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

TEST_F(ForkExecvGetouterr, LookThatSetsErrnoGivesMinusOne)
{
    EXPECT_EQ(result_of_look(-1, 0, ECHILD), "-1 out=null err=null");
    EXPECT_EQ(result_of_look(-1, 0, EINTR), "-1 out=null err=null");
    EXPECT_EQ(result_of_look(4242, 3 << 8, EINTR), "-1 out=null err=null");
    EXPECT_EQ(result_of_look(4242, 3 << 8, 0), "3 out=null err=null");
}

TEST_F(ForkExecvGetouterr, EverySelectHasASecondAndNonBlockingPipes)
{
    const SelectWatch watch;

    EXPECT_EQ(shown_run({"out", "1", "sleep", "100", "out", "1", "sleep", "100", "out", "1"}),
              "0 out=ooo err=");
    EXPECT_GE(watch.calls.size(), 2U);
    for (const SelectWatch::Seen &call : watch.calls) {
        EXPECT_EQ(call.timeout, 1000);
        EXPECT_FALSE(call.is_blocking);
    }
}

TEST_F(ForkExecvGetouterr, StandardErrorThatCannotBeInstalledIsToldOnTheInheritedOne)
{
    std::string run;
    const Output told = output_of([&] {
        const Fault fault(Call::dup2, 2, EBUSY); /* standard error's: the words go to the inherited one */
        run = shown_run({});
    });

    EXPECT_EQ(run, "255 out= err=");
    EXPECT_EQ(told.err, "fork_execv: dup() failed: Device or resource busy\n");
}

TEST_F(ForkExecvGetout, StandardOutputIsCapturedAndStandardErrorInherited)
{
    const std::string missing = "/nonexistent/program";
    const struct {
        std::string path;
        Words words;
        std::string run;
        std::string inherited;
    } rows[] = {
        {helper, {"out", "5000", "err", "3", "exit", "6"}, "6 out=" + std::string(5000, 'o'), "eee"},
        {helper, {}, "0 out=", ""},
        {missing,
         {},
         "255 out=",
         "fork_execv: execv(\"" + missing + "\") failed: No such file or directory\n"},
    };

    for (const auto &row : rows) {
        Captured done;
        const Output told = output_of([&] { done = run_out(row.path.c_str(), Orders(row.words)); });

        EXPECT_EQ(shown(done), row.run + " err=null");
        EXPECT_EQ(told.err, row.inherited);
    }
}

TEST_F(ForkExecvGetout, OnlyOnePipeIsMade)
{
    const Fault fault(Call::pipe, 2, EMFILE);

    EXPECT_EQ(run_out(helper, Orders({})).result, 0);
    EXPECT_FALSE(Fault::has_fired());
}

TEST_F(ForkExecvGetout, ProcessLeftBehindWithThePipeDoesNotKeepTheRunFromEnding)
{
    const Captured done = run_out(helper, Orders({"close", "2", "hold", "exit", "4"}));

    EXPECT_EQ(done.result, 4);
    ASSERT_NE(done.out, nullptr);
    end_process(number_after(done.out.get(), ""));
}

TEST(RunnersOfPrograms, FailedPipeModeForkOrMemoryEndsTheProcess)
{
    const std::string captured = "^fork_execv_getouterr: ";
    const auto both = [] {
        (void)run_both(helper, Orders({}));
    };
    const auto out_only = [] {
        (void)run_out(helper, Orders({}));
    };
    const auto fd = [] {
        (void)fork_exec_fd(-1, -1, helper, Orders({}));
    };
    const struct {
        void (*run)();
        Call call;
        int nth;
        int error;
        std::string text;
    } rows[] = {
        {both, Call::pipe, 1, ENFILE, captured + "pipe\\(\\) failed"},
        {both, Call::pipe, 2, ENFILE, captured + "pipe\\(\\) failed"},
        {both, Call::fcntl, 1, EBADF, captured + "fcntl\\(O_NONBLOCK\\) failed"},
        {both, Call::fcntl, 2, EBADF, captured + "fcntl\\(O_NONBLOCK\\) failed"},
        {both, Call::fork, 1, EAGAIN, "^fork_execv_pipes: fork\\(\\) failed"},
        {out_only, Call::pipe, 1, EMFILE, captured + "pipe\\(\\) failed"},
        {out_only, Call::fcntl, 1, EBADF, captured + "fcntl\\(O_NONBLOCK\\) failed"},
        {fd, Call::pipe, 1, EMFILE, "^fork_exec_fd pipe\\(\\): Too many open files"},
        {fd, Call::fork, 1, ENOMEM, "^Error occured during fork\\(\\):\nCannot allocate memory"},
    };

    for (const auto &row : rows) {
        EXPECT_EXIT(
            {
                const Fault fault(row.call, row.nth, row.error);
                row.run();
            },
            ExitedWithCode(1),
            row.text + "\nSystem error " + std::to_string(row.error) + ": " + std::strerror(row.error) +
                "\n$");
    }
    for (const int nth : {1, 2}) {
        EXPECT_EXIT(
            {
                const AllocFaults faults(nth);
                (void)run_both(helper, Orders({"out", "4000"}));
            },
            ExitedWithCode(1), "^Cannot allocate memory\nSystem error 12: Cannot allocate memory\n$");
    }
}

/* An older failure, which is none of the program's, stands in errno. */
Observed observe_fd(const char *path, const char *const argv[], int fd_in = -1)
{
    return observe([&] {
        errno = EPERM;
        return fork_exec_fd(fd_in, -1, path, argv);
    });
}

TEST_F(ForkExecFd, StandardStreamsOfTheCallerAreRefusedAndNothingIsStarted)
{
    const int refused[][2] = {{0, -1}, {-1, 1}, {0, 1}};
    const ForkCount forks;

    for (const auto &fds : refused) {
        const Observed seen = observe([&] { return fork_exec_fd(fds[0], fds[1], helper, Orders({})); });

        EXPECT_EQ(seen.result, -1);
        EXPECT_EQ(seen.err, "values 0,1,2 not allowed for variables fd_in & fd_out\n");
        EXPECT_EQ(seen.out, seen.err);
    }
    EXPECT_EQ(forks.count(), 0);
}

TEST_F(ForkExecFd, StandardErrorIsReportedOnBothStreamsAndTheExitCodeReturned)
{
    const char *const bad_address[] = {helper, reinterpret_cast<const char *>(1), nullptr};
    const Orders talker({"out", "4", "say", "trouble", "exit", "7"});
    const Orders long_talker({"err", "8190"});
    const Orders short_talker({"err", "1"});
    const Orders silent({});
    std::string piece(4096, 'e');

    piece.back() = '\n';

    const struct {
        const char *path;
        const char *const *argv;
        int result;
        std::string reports;
    } rows[] = {
        {helper, talker, 7, "trouble\n"},
        {helper, long_talker, 0, piece + piece},
        {helper, short_talker, 0, "e\n"},
        {"/nonexistent/program", silent, 255, "Error occured during execv():\nNo such file or directory.\n"},
        {helper, bad_address, 255,
         "Error occured during execv():\nBad address, possible reason - NULL parameter is absent in "
         "util_exec(path, arg1, arg2, NULL) call.\n"},
    };

    for (const auto &row : rows) {
        const Observed seen = observe_fd(row.path, row.argv);

        EXPECT_EQ(seen.result, row.result) << row.reports;
        EXPECT_EQ(seen.err, row.reports);
        EXPECT_EQ(seen.out, row.reports);
    }
}

TEST_F(ForkExecFd, DescriptorThatIsNotOpenEndsTheChildWith255)
{
    const Observed seen = observe_fd(helper, Orders({}), 999);

    EXPECT_EQ(seen.result, 255);
    EXPECT_EQ(seen.err, "fork_execv: dup() failed: Bad file descriptor\n");
}

TEST_F(ForkExecFd, ErrorOutputIsPassedOnAtOnce)
{
    Pipe input;
    Pipe screen;
    ASSERT_EQ(open_pipe(&input), 0);
    ASSERT_EQ(open_pipe(&screen), 0);
    const pid_t runner = fork();
    if (runner == 0) {
        input.write_end.reset();
        dup2(screen.write_end.get(), STDERR_FILENO);
        _exit(fork_exec_fd(input.read_end.get(), -1, helper, Orders({"say", "ready", "input", "exit", "9"})));
    }
    char heard[6] = {};

    EXPECT_EQ(read(screen.read_end.get(), heard, 5), 5); /* the program still waits for its input */
    EXPECT_STREQ(heard, "ready");
    input = {};
    screen = {};
    EXPECT_EQ(raw_status(runner), 9 << 8);
}

TEST_F(ForkExecFd, DescriptorsBecomeTheStreamsAndNoOtherIsInherited)
{
    const Fd zero(open("/dev/zero", O_RDWR));

    for (const int fd_in : {zero.get(), -1}) {
        Pipe pipe;
        char list[256] = {};

        ASSERT_EQ(open_pipe(&pipe), 0);
        EXPECT_EQ(fork_exec_fd(fd_in, pipe.write_end.get(), helper, Orders({"fds"})), 0);
        EXPECT_EQ(fcntl(pipe.write_end.get(), F_GETFD), 0) << "the caller's own stays open";
        EXPECT_GT(read(pipe.read_end.get(), list, sizeof list - 1), 0);
        EXPECT_EQ(std::string(list).find(fd_in < 0 ? "0 1 2 /dev/null pipe:[" : "0 1 2 /dev/zero pipe:["), 0U)
            << list;
    }
    EXPECT_EQ(fork_exec_fd(-1, -1, helper, Orders({"out", "10"})), 0) << "has to have somewhere to write to";
}

TEST_F(ForkExecFd, KilledOrStoppedProgramIsReportedAndAStoppedOneLeftStopped)
{
    const Observed killed = observe_fd(helper, Orders({"signal", "9"}));
    const Observed stopped = observe_fd(helper, Orders({"close", "2", "stop"}));
    const long stopped_pid = number_after(stopped.err, "pid ");
    const std::string report = "The child process with pid ";

    end_process(stopped_pid);
    EXPECT_EQ(killed.result, -1);
    EXPECT_EQ(killed.err,
              report + std::to_string(number_after(killed.err, "pid ")) + " killed by signal 9\n");
    EXPECT_EQ(killed.out, killed.err);
    EXPECT_EQ(stopped.result, -1);
    EXPECT_EQ(stopped.err,
              report + std::to_string(stopped_pid) + " stopped by signal " + std::to_string(SIGSTOP) + '\n');
    EXPECT_EQ(stopped.out, stopped.err);
}

TEST_F(ForkExecFd, StreamsThatWereClosedAtTheStartAreWiredAllTheSame)
{
    for (int closed = 1; closed < 8; closed++) {
        EXPECT_EQ(in_child([closed] {
                      close_streams(closed);
                      return std::to_string(fork_exec_fd(-1, -1, helper, Orders({"out", "3", "exit", "3"})));
                  }),
                  "3")
            << "closed streams, as bits: " << closed;
    }
}

TEST_F(ForkExecFd, FailedWaitIsReported)
{
    for (const int error : {ECHILD, EINTR}) {
        const Observed seen = observe([error] {
            const Fault fault(Call::waitpid, 1, error);
            return fork_exec_fd(-1, -1, helper, Orders({}));
        });
        const long pid = number_after(seen.err, "pid: ");
        const std::string reason = std::strerror(error);

        EXPECT_EQ(seen.result, -1);
        EXPECT_EQ(seen.err,
                  "Error occured during waiting the child process with pid: " + std::to_string(pid) + ": " +
                      reason + "\n\nSystem error " + std::to_string(error) + ": " + reason + '\n');
        EXPECT_EQ(seen.out, seen.err);
        end_process(pid);
    }
}

TEST_F(ForkExecFd, WordsForAProgramThatCannotBeExecutedAreOneWriteAndOneReport)
{
    const WritesShown shown;
    const Observed seen = observe([] { return fork_exec_fd(-1, -1, "/nonexistent", Orders({})); });

    EXPECT_EQ(seen.result, 255);
    EXPECT_EQ(seen.err, "[Error occured during execv():\nNo such file or directory.\n]\n");
}

TEST_F(ForkExecFd, FailedReadIsToldAndTheProgramWaitedFor)
{
    const Fault fault(Call::read, 1, EIO);
    const Observed seen = observe([] { return fork_exec_fd(-1, -1, helper, Orders({"exit", "6"})); });

    EXPECT_EQ(seen.result, 6);
    EXPECT_EQ(seen.err, "fork_exec*: read(pipe) failed: Input/output error\n");
}

} // namespace

} // namespace kolmo::testing
