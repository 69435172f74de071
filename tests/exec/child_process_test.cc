/* Starting a child, waiting for it, and feeding a shell command: real programs, and calls that fail. */
#include "exec/child_process.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/owned.h"
#include "tests/exec/exec_support.h"
#include "tests/exec/process_faults.h"
#include "tests/support/temp_dir.h"

namespace kolmo::testing
{

namespace
{

using ForkExecvPipes = ExecTest;
using WaitChild = ExecTest;
using ExecWithInput = ExecTest;

int start(const std::vector<const char *> &words)
{
    return fork_execv_pipes(0, 1, 2, helper, Orders(words));
}

/* What comes of a child with these streams that runs the path, and is waited for without a word. */
Observed observe_child(int fd_in, int fd_out, int fd_err, const char *path, const Orders &orders = Orders({}))
{
    return observe([&] { return raw_status(fork_execv_pipes(fd_in, fd_out, fd_err, path, orders)); });
}

TEST_F(ForkExecvPipes, OwnNumbersLeaveTheStreamsAsTheyAreInherited)
{
    const Observed seen = observe_child(0, 1, 2, helper, Orders({"out", "2", "err", "3"}));

    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.out, "oo");
    EXPECT_EQ(seen.err, "eee");
}

TEST_F(ForkExecvPipes, MinusOneStandsForTheNullDeviceToReadAndToWrite)
{
    const Observed seen = observe_child(-1, 1, -1, helper, Orders({"fds"}));

    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.out.find("0 1 2 /dev/null "), 0U) << seen.out;
    EXPECT_EQ(seen.out.rfind(" /dev/null "), seen.out.size() - 11) << seen.out;
    EXPECT_EQ(observe_child(-1, -1, -1, helper, Orders({"input", "out", "9", "err", "9"})).result, 0);
}

TEST_F(ForkExecvPipes, NullDeviceIsInstalledWhereTheStreamWasClosed)
{
    const std::string seen = in_child([] {
        close_streams(1);
        return observe_child(-1, 1, 2, helper, Orders({"fds"})).out;
    });

    EXPECT_EQ(seen.find("0 1 2 /dev/null "), 0U) << seen;
}

TEST_F(ForkExecvPipes, StreamThatWasClosedAndIsLeftSoMakesRoomForAnother)
{
    EXPECT_EQ(
        in_child([] {
            close_streams(1);
            return std::to_string(raw_status(fork_execv_pipes(0, -1, 2, helper, Orders({"exit", "3"}))));
        }),
        std::to_string(3 << 8));
}

TEST_F(ForkExecvPipes, OtherDescriptorIsInstalledAndClosed)
{
    const TempDir folder;
    const std::string path = folder.path("output");
    const Fd file(open(path.c_str(), O_RDWR | O_CREAT, 0600));
    char list[256] = {};

    EXPECT_EQ(observe_child(0, file.get(), 2, helper, Orders({"fds"})).result, 0);
    EXPECT_GT(pread(file.get(), list, sizeof list - 1, 0), 0);
    EXPECT_EQ(std::string(list).find("0 1 2 "), 0U) << list;
    EXPECT_NE(std::string(list).find(path), std::string::npos) << list;
}

TEST_F(ForkExecvPipes, LowDescriptorIsClosedWhereItCameFrom)
{
    const Observed seen = observe_child(2, 1, 2, helper, Orders({"fds"}));

    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.out.find("0 1 "), 0U) << seen.out;
    EXPECT_NE(seen.out.find("0 1 2 "), 0U) << seen.out;
}

TEST_F(ForkExecvPipes, DescriptorThatIsNotOpenEndsTheChildWith255)
{
    const int wrong[][3] = {{999, 1, 2}, {0, 999, 2}, {0, 1, 999}, {-2, 1, 2}};

    for (const auto &fds : wrong) {
        const Observed seen = observe_child(fds[0], fds[1], fds[2], helper);

        EXPECT_EQ(seen.result, 255 << 8);
        EXPECT_EQ(seen.err, "fork_execv: dup() failed: Bad file descriptor\n");
    }
}

TEST_F(ForkExecvPipes, StreamThatCannotBeOpenedOrInstalledEndsTheChildWith255)
{
    const struct {
        Call call;
        int error;
    } rows[] = {{Call::open, ENODEV}, {Call::dup2, EBUSY}};

    for (const auto &row : rows) {
        const Observed seen = observe([&] {
            const Fault fault(row.call, 1, row.error);
            return raw_status(fork_execv_pipes(0, -1, 2, helper, Orders({})));
        });

        EXPECT_EQ(seen.result, 255 << 8);
        EXPECT_EQ(seen.err, std::string("fork_execv: dup() failed: ") + std::strerror(row.error) + '\n');
    }
}

TEST_F(ForkExecvPipes, MissingProgramEndsTheChildWith255)
{
    const Observed seen = observe_child(0, 1, 2, "/nonexistent/program");

    EXPECT_EQ(seen.result, 255 << 8);
    EXPECT_EQ(seen.err, "fork_execv: execv(\"/nonexistent/program\") failed: No such file or directory\n");
}

/* What the child flushes when it exits and what its parent flushes later must not be the same text. */
TEST_F(ForkExecvPipes, BufferedOutputIsWrittenOnceThoughTheChildExits)
{
    const TempDir folder;
    const std::string path = folder.path("file");
    const Observed seen = observe([&] {
        const OwnedFile file(std::fopen(path.c_str(), "w"));

        (void)std::printf("once");
        (void)std::fprintf(file.get(), "once");
        const int status = raw_status(fork_execv_pipes(0, 1, 2, "/nonexistent/program", Orders({})));
        (void)std::fflush(stdout);
        return status;
    });

    EXPECT_EQ(seen.result, 255 << 8);
    EXPECT_EQ(seen.out, "once");
    EXPECT_EQ(std::filesystem::file_size(path), 4U);
}

TEST_F(ForkExecvPipes, FailedForkEndsTheProcess)
{
    EXPECT_EXIT(
        {
            const Fault fault(Call::fork, 1, EAGAIN);
            (void)start({});
        },
        ::testing::ExitedWithCode(1),
        "^fork_execv_pipes: fork\\(\\) failed\nSystem error 11: Resource temporarily unavailable\n$");
}

void say_farewell()
{
    (void)!write(STDOUT_FILENO, "farewell", 8);
}

/* What a child says that ends before its program is executed; its parent ends without a farewell. */
std::string farewell_of(int fd_err, const char *path)
{
    return in_child([&] {
        (void)std::atexit(say_farewell);
        return observe([&] { return raw_status(fork_execv_pipes(0, 1, fd_err, path, Orders({}))); }).out;
    });
}

TEST_F(ForkExecvPipes, ChildWithoutItsProgramOrStreamsRunsTheCallersAtexitFunctions)
{
    EXPECT_EQ(farewell_of(2, "/nonexistent/program"), "farewell");
    EXPECT_EQ(farewell_of(999, helper), "farewell");
}

TEST_F(WaitChild, ExitCodeIsTheResultAndTheRawStatusIsStoredIfWanted)
{
    int status = -1;

    errno = EPERM;
    EXPECT_EQ(wait_child(start({"exit", "3"}), "program", &status), 3);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(status, 3 << 8);
    EXPECT_EQ(wait_child(start({"exit", "255"}), "program", nullptr), 255);
}

TEST_F(WaitChild, NegativeIdIsAFailedForkAndNotWaitedFor)
{
    const Fault fault(Call::waitpid, 1, EINVAL);

    EXPECT_EQ(wait_child(-1, "program", nullptr), -1);
    EXPECT_EQ(log.take_one(), "3 fork before spawning 'program' failed");
    EXPECT_EQ(wait_child(-7, nullptr, nullptr), -1);
    EXPECT_EQ(log.take_one(), "3 fork before spawning '<unknown>' failed");
    EXPECT_FALSE(Fault::has_fired());
}

TEST_F(WaitChild, FailedWaitIsAnErrorWithItsReason)
{
    const pid_t pid = start({});
    (void)raw_status(pid);

    EXPECT_EQ(wait_child(pid, "program", nullptr), -1);
    EXPECT_EQ(log.take_one(),
              "3 waitpid(" + std::to_string(pid) + ") for 'program' process failed: No child processes (10)");
}

TEST_F(WaitChild, KilledChildIsAWarning)
{
    const pid_t pid = start({"signal", "9"});
    const std::string id = std::to_string(pid);
    int status = -1;

    EXPECT_EQ(wait_child(pid, "program", &status), -1);
    EXPECT_EQ(status, 9);
    EXPECT_EQ(log.take_one(), "4 waitpid(" + id + ")=" + id + ": process 'program' killed by signal 9");
}

TEST_F(WaitChild, StoppedChildIsAWarningAndCanBeWaitedForAgain)
{
    const pid_t pid = start({"stop", "exit", "8"});
    const std::string id = std::to_string(pid);

    EXPECT_EQ(wait_child(pid, nullptr, nullptr), -1);
    EXPECT_EQ(log.take_one(), "4 waitpid(" + id + ")=" + id + ": process '<unknown>' stopped by signal " +
                                  std::to_string(SIGSTOP));
    EXPECT_EQ(kill(pid, SIGCONT), 0);
    EXPECT_EQ(wait_child(pid, nullptr, nullptr), 8);
}

/* What waitpid answers, and not what was asked, is shown; errno does not matter when there is an answer. */
TEST_F(WaitChild, OddAnswersAreLogged)
{
    const struct {
        pid_t answer;
        int status;
        int result;
        const char *line;
    } rows[] = {
        {0, 0, -1, "3 waitpid(4242) for '<unknown>' process returned unexpected 0 code"},
        {4242, 0xffff, -1, "4 waitpid(4242)=4242: process '<unknown>' continued"},
        {17, 9, -1, "4 waitpid(4242)=17: process '<unknown>' killed by signal 9"},
        {-1, 0, -1, "3 waitpid(4242) for '<unknown>' process failed: Interrupted system call (4)"},
        {4242, 3 << 8, 3, nullptr},
    };

    for (const auto &row : rows) {
        const FakeWait wait(row.answer, row.status, EINTR);
        int status = 0;

        EXPECT_EQ(wait_child(4242, nullptr, &status), row.result);
        EXPECT_EQ(status, row.status);
        EXPECT_EQ(log.take(),
                  row.line != nullptr ? std::vector<std::string>{row.line} : std::vector<std::string>{});
    }
}

TEST_F(ExecWithInput, CommandGetsTheWholeInput)
{
    const TempDir folder;
    const std::string input(300000, 'i');

    EXPECT_EQ(exec_with_input(("cat > " + folder.path("copy")).c_str(), input.c_str()), 0);
    const OwnedFile copy(std::fopen(folder.path("copy").c_str(), "r"));
    std::string read_back(400000, '\0');
    read_back.resize(std::fread(read_back.data(), 1, read_back.size(), copy.get()));
    EXPECT_EQ(read_back, input);
}

TEST_F(ExecWithInput, ExitCodeIsTheResult)
{
    EXPECT_EQ(exec_with_input("exit 7", ""), 7);
    EXPECT_EQ(exec_with_input("exec /nonexistent/program 2> /dev/null", ""), 127);
}

TEST_F(ExecWithInput, CommandEndedByASignalCountsAsASuccess)
{
    EXPECT_EQ(exec_with_input("kill -9 $$", ""), 0);
}

TEST_F(ExecWithInput, ShortWriteIsReportedAndGivesMinusOne)
{
    const std::string input(1048576, 'i');
    const Observed seen = observe([&] { return exec_with_input("exec true", input.c_str()); });
    const std::string start_of_text = "Failed to execute command with input: only ";
    const long written = number_after(seen.err, start_of_text);

    EXPECT_EQ(seen.result, -1);
    EXPECT_EQ(seen.err, start_of_text + std::to_string(written) +
                            " of 1048576 bytes were written.\nSystem error 32: Broken pipe\n");
    EXPECT_EQ(seen.out, seen.err);
    EXPECT_LT(written, 1048576);
}

TEST_F(ExecWithInput, UnreadShortInputIsNoFailure)
{
    EXPECT_EQ(exec_with_input("exec <&-; exit 4", "short"), 4);
}

TEST_F(ExecWithInput, SignalForBrokenPipesIsOnlyIgnoredHere)
{
    EXPECT_EQ(in_child([] {
                  (void)std::signal(SIGPIPE, SIG_DFL);
                  const int result = exec_with_input("kill -PIPE $$; exit 5", "");
                  const bool is_default = std::signal(SIGPIPE, SIG_DFL) == SIG_DFL;
                  return "result " + std::to_string(result) +
                         (is_default ? ", default again" : ", still ignored");
              }),
              "result 0, default again");
}

TEST_F(ExecWithInput, FailedCloseGivesMinusOneWithoutAReport)
{
    EXPECT_EQ(in_child([] {
                  (void)std::signal(SIGCHLD, SIG_IGN); /* so the command cannot be waited for */
                  const Observed seen = observe([] { return exec_with_input("exit 3", ""); });
                  return std::to_string(seen.result) + seen.err;
              }),
              "-1");
}

TEST_F(ExecWithInput, CommandThatCannotBeStartedIsReported)
{
    const Fault fault(Call::popen, 1, EMFILE);
    const Observed seen = observe([] { return exec_with_input("exit 3", "input"); });

    EXPECT_EQ(seen.result, -1);
    EXPECT_EQ(seen.err,
              "Failed to execute command with input: either pipe, fork or memory allocation failed.\n"
              "System error 24: Too many open files\n");
    EXPECT_EQ(seen.out, seen.err);
}

} // namespace

} // namespace kolmo::testing
