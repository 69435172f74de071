/* Starting a child, waiting for it, and feeding a shell command, with real programs. */
#include "exec/child_process.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/owned.h"
#include "tests/exec/exec_support.h"
#include "tests/support/temp_dir.h"

namespace kolmo::testing
{

namespace
{

using ForkExecvPipes = ExecTest;
using WaitChild = ExecTest;
using ExecWithInput = ExecTest;

int start(std::initializer_list<const char *> words)
{
    return fork_execv_pipes(0, 1, 2, helper, Orders(words));
}

TEST_F(ForkExecvPipes, OwnNumbersLeaveTheStreamsAsTheyAreInherited)
{
    const Observed seen = observe([] { return raw_status(start({"out", "2", "err", "3"})); });

    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.out, "oo");
    EXPECT_EQ(seen.err, "eee");
}

TEST_F(ForkExecvPipes, MinusOneStandsForTheNullDevice)
{
    const Observed seen =
        observe([] { return raw_status(fork_execv_pipes(-1, 1, -1, helper, Orders({"fds"}))); });

    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.out.find("0 1 2 /dev/null "), 0U) << seen.out;
    EXPECT_EQ(seen.out.rfind(" /dev/null "), seen.out.size() - 11) << seen.out;
}

TEST_F(ForkExecvPipes, NullDeviceIsInstalledWhereTheStreamWasClosed)
{
    const std::string seen = in_child([] {
        const Observed run = observe([] {
            close(0);
            return raw_status(fork_execv_pipes(-1, 1, 2, helper, Orders({"fds"})));
        });
        return run.out;
    });

    EXPECT_EQ(seen.find("0 1 2 /dev/null "), 0U) << seen;
}

TEST_F(ForkExecvPipes, NullDeviceIsReadAndWritten)
{
    EXPECT_EQ(raw_status(fork_execv_pipes(-1, -1, -1, helper, Orders({"input", "out", "9", "err", "9"}))), 0);
}

TEST_F(ForkExecvPipes, OtherDescriptorIsInstalledAndClosed)
{
    const TempDir folder;
    const std::string path = folder.path("output");
    const Fd file(open(path.c_str(), O_RDWR | O_CREAT, 0600));
    char list[256] = {};

    EXPECT_EQ(raw_status(fork_execv_pipes(0, file.get(), 2, helper, Orders({"fds"}))), 0);
    EXPECT_GT(pread(file.get(), list, sizeof list - 1, 0), 0);
    EXPECT_EQ(std::string(list).find("0 1 2 "), 0U) << list;
    EXPECT_NE(std::string(list).find(path), std::string::npos) << list;
}

TEST_F(ForkExecvPipes, LowDescriptorIsClosedWhereItCameFrom)
{
    const Observed seen =
        observe([] { return raw_status(fork_execv_pipes(2, 1, 2, helper, Orders({"fds"}))); });

    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.out.find("0 1 "), 0U) << seen.out;
    EXPECT_NE(seen.out.find("0 1 2 "), 0U) << seen.out;
}

TEST_F(ForkExecvPipes, DescriptorThatIsNotOpenEndsTheChildWith255)
{
    const int wrong[][3] = {{999, 1, 2}, {0, 999, 2}, {0, 1, 999}, {-2, 1, 2}};

    for (const auto &fds : wrong) {
        const Observed seen =
            observe([&] { return raw_status(fork_execv_pipes(fds[0], fds[1], fds[2], helper, Orders({}))); });
        EXPECT_EQ(seen.result, 255 << 8);
        EXPECT_EQ(seen.err, "fork_execv: dup() failed: Bad file descriptor\n");
    }
}

TEST_F(ForkExecvPipes, MissingProgramEndsTheChildWith255)
{
    const Observed seen =
        observe([] { return raw_status(fork_execv_pipes(0, 1, 2, "/nonexistent/program", Orders({}))); });

    EXPECT_EQ(seen.result, 255 << 8);
    EXPECT_EQ(seen.err, "fork_execv: execv(\"/nonexistent/program\") failed: No such file or directory\n");
}

TEST_F(ForkExecvPipes, BufferedOutputIsWrittenOnceThoughTheChildExits)
{
    const Observed seen = observe([] {
        (void)std::printf("once");
        return raw_status(fork_execv_pipes(0, 1, 2, "/nonexistent/program", Orders({})));
    });

    EXPECT_EQ(seen.result, 255 << 8);
    EXPECT_EQ(seen.out, "once");
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

TEST_F(ForkExecvPipes, ChildWithoutItsProgramRunsTheCallersAtexitFunctions)
{
    EXPECT_EQ(farewell_of(2, "/nonexistent/program"), "farewell");
}

TEST_F(ForkExecvPipes, ChildWithoutItsStreamsRunsTheCallersAtexitFunctions)
{
    EXPECT_EQ(farewell_of(999, helper), "farewell");
}

TEST_F(WaitChild, ExitCodeIsTheResultAndTheRawStatusIsStored)
{
    int status = -1;

    EXPECT_EQ(wait_child(start({"exit", "3"}), "program", &status), 3);
    EXPECT_EQ(status, 3 << 8);
}

TEST_F(WaitChild, StatusMayBeNull)
{
    EXPECT_EQ(wait_child(start({"exit", "255"}), "program", nullptr), 255);
}

TEST_F(WaitChild, EndsWithErrnoCleared)
{
    errno = EPERM;
    EXPECT_EQ(wait_child(start({}), "program", nullptr), 0);
    EXPECT_EQ(errno, 0);
}

TEST_F(WaitChild, NegativeIdIsAFailedFork)
{
    EXPECT_EQ(wait_child(-1, "program", nullptr), -1);
    EXPECT_EQ(log.take_one(), "3 fork before spawning 'program' failed");
}

TEST_F(WaitChild, NullNameShowsAsUnknown)
{
    EXPECT_EQ(wait_child(-7, nullptr, nullptr), -1);
    EXPECT_EQ(log.take_one(), "3 fork before spawning '<unknown>' failed");
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

} // namespace

} // namespace kolmo::testing
