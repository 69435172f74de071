/* Ended at each step, by a signal that can be caught and by the one that cannot. */
#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/file.h>
#include <unistd.h>

#include "refresh/lock.h"
#include "tests/refresh/held_transaction.h"
#include "tests/refresh/refresh_world.h"
#include "tests/support/program_run.h"
#include "tests/support/program_text.h"
#include "tests/support/unix_socket.h"
#include "tests/support/wait_until.h"

namespace kolmo
{

namespace
{

using namespace testing;
namespace fs = std::filesystem;

const std::string reached = "/run/reached";

class InterruptionTest : public RefreshTest
{
protected:
    void SetUp() override
    {
        RefreshTest::SetUp();
        silent_ = listen_at(silent_socket);
    }

    /* Whether a refresh has come to where it hangs. */
    using Arrival = std::function<bool(const InterruptionTest &, pid_t)>;
    static Arrival exists(const std::string &path);
    static Arrival opened(const std::string &path);
    static bool has_asked(const InterruptionTest &test, pid_t process);

    /* Each hangs a refresh at a step. */
    struct Step {
        const char *what;
        std::function<void(InterruptionTest &)> hang;
        std::vector<std::string> arguments = {};
        Arrival has_come = exists(reached);
    };
    static const std::vector<Step> &steps();

    /* Hangs it, sends the signal, and returns how the program ended; the live stores are untouched. */
    int end_at(const Step &step, int signal_number);

    Fd silent_; /* connected to, and never accepted: who asks waits for a greeting */
    Fd run_lock_;
    std::optional<HeldTransaction> other_;
};

InterruptionTest::Arrival InterruptionTest::exists(const std::string &path)
{
    return [path](const InterruptionTest &, pid_t) {
        return fs::exists(path);
    };
}

InterruptionTest::Arrival InterruptionTest::opened(const std::string &path)
{
    return [path](const InterruptionTest &, pid_t process) {
        return has_open(process, KOLMO_REFRESH_PROGRAM, path);
    };
}

bool InterruptionTest::has_asked(const InterruptionTest &test, pid_t)
{
    pollfd caller = {test.silent_.get(), POLLIN, 0};

    return ::poll(&caller, 1, 0) == 1;
}

const std::vector<InterruptionTest::Step> &InterruptionTest::steps()
{
    static const std::string silence = "echo MYSQL_SOCKET " + silent_socket + " >" + conf_path;
    static const std::vector<Step> all = {
        {"waiting for another refresh",
         [](InterruptionTest &test) {
             test.run_lock_.reset(::open(run_lock_path, O_RDWR | O_CREAT | O_CLOEXEC, 0600));
             EXPECT_EQ(::flock(test.run_lock_.get(), LOCK_EX), 0);
         },
         {},
         opened(run_lock_path)},
        {"asking a panel that does not answer",
         [](InterruptionTest &) { write_file(conf_path, "MYSQL_SOCKET " + silent_socket + "\n", 0644); },
         {},
         has_asked},
        {"waiting for a live store",
         [](InterruptionTest &test) { test.other_.emplace(handlers_store, "BEGIN EXCLUSIVE"); },
         {},
         opened(handlers_store)},
        {"in the panel's utility",
         [](InterruptionTest &) {
             write_utility(": >" + reached + "; sleep 1000");
         }},
        {"in the utility, staged in a folder",
         [](InterruptionTest &) {
             fs::create_directory("/run/stage");
             write_utility("mkdir " + fs::path(responder_store).parent_path().string() + "/inner; : >" +
                           reached + "; sleep 1000");
         },
         {"--stage", "/run/stage"}},
        {"in the rebuild",
         [](InterruptionTest &) { (void)rebuild_script("\"$rebuild\"; : >" + reached + "; sleep 1000"); },
         {"--rebuild", script_path, "--progress"}},
        {"in the look",
         [](InterruptionTest &) { (void)rebuild_script("\"$rebuild\"; " + silence); },
         {"--rebuild", script_path},
         has_asked},
        {"publishing, with a new file beside the old one, and a reader of the handlers",
         [](InterruptionTest &test) {
             fs::remove(responder_store);
             test.other_.emplace(handlers_store, "BEGIN; SELECT count(*) FROM handlers");
         },
         {},
         exists(responder_store + "-refresh")},
    };

    return all;
}

int InterruptionTest::end_at(const Step &step, int signal_number)
{
    step.hang(*this);

    const FileState responders(responder_store);
    const FileState handlers(handlers_store);
    const std::unique_ptr<Program> program = start(step.arguments);

    wait_until([&] { return step.has_come(*this, program->pid()); }, step.what);
    EXPECT_TRUE(program->is_running());
    EXPECT_EQ(::kill(program->pid(), signal_number), 0);

    const int status = program->finish().status;

    other_.reset();
    run_lock_.reset();
    expect_untouched(responders);
    expect_untouched(handlers);
    return status;
}

TEST_F(InterruptionTest, CaughtAtEachStepItEndsByTheSignalAndLeavesNothing)
{
    constexpr int signals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
    std::size_t number = 0;

    for (const Step &step : steps()) {
        const int signal_number = signals[number++ % std::size(signals)];

        SCOPED_TRACE(step.what);
        SetUp();
        EXPECT_EQ(end_at(step, signal_number), 1000 + signal_number);
        EXPECT_EQ(what_is_left(), Lines{});
    }
}

/* Not by the one before it, though it hangs before it has made anything. */
TEST_F(InterruptionTest, RefreshAtWorkIsKnownByItsOwnProcess)
{
    write_file(run_lock_path, "4194304\n\n", 0600); /* which no process has */
    write_file(conf_path, "MYSQL_SOCKET " + silent_socket + "\n", 0644);

    const std::unique_ptr<Program> first = start();
    const std::string process = std::to_string(first->pid());

    wait_until([&] { return read_file(run_lock_path).starts_with(process + "\n"); }, "the lock");

    const ProgramResult second = refresh({"--wait", "0"});

    EXPECT_EQ(second.status, 2);
    EXPECT_NE(unwrapped(second.err).find("another refresh is at work (process " + process + ")"),
              std::string::npos)
        << second.err;
    EXPECT_EQ(::kill(first->pid(), SIGTERM), 0);
    EXPECT_EQ(first->finish().status, 1000 + SIGTERM);
}

/* With its folder the note of it goes: the next refresh has nothing to look for. */
TEST_F(InterruptionTest, RefreshThatEndedHasNoteOfNoFolder)
{
    EXPECT_EQ(refresh().status, 0);
    EXPECT_TRUE(read_file(run_lock_path).ends_with("\n\n")) << read_file(run_lock_path);
}

/* The kernel ends what the killed one had started, though not before its parent knows of the end. */
void wait_for_the_processes_to_end()
{
    wait_until(
        [] {
            const Lines left = what_is_left();

            return std::none_of(left.begin(), left.end(),
                                [](const std::string &line) { return line.starts_with("process"); });
        },
        "the end of all processes");
}

TEST_F(InterruptionTest, KilledAtEachStepItLeavesAFolderAtMostWhichTheNextOneRemoves)
{
    for (const Step &step : steps()) {
        SCOPED_TRACE(step.what);
        SetUp();
        EXPECT_EQ(end_at(step, SIGKILL), 1000 + SIGKILL);
        wait_for_the_processes_to_end();

        const Lines left = what_is_left();

        const bool has_folder = std::any_of(
            left.begin(), left.end(), [](const std::string &line) { return line.starts_with("folder"); });

        EXPECT_LE(left.size(), 2U); /* and the new file of a store */
        fs::remove(conf_path);
        write_utility("exec " + stand_in);

        const ProgramResult next = refresh();

        EXPECT_EQ(next.status, 0) << next.err;
        EXPECT_EQ(next.err.find("a refresh was killed; what it has left") == std::string::npos, !has_folder)
            << next.err;
        EXPECT_EQ(what_is_left(), Lines{});
        expect_fresh();
    }
}

TEST_F(InterruptionTest, KeeperThatIsKilledTakesTheRebuildWithItAndIsTrouble)
{
    const FileState responders(responder_store);
    const FileState handlers(handlers_store);

    write_utility(": >" + reached + "; sleep 1000");

    const std::unique_ptr<Program> program = start();
    const std::string task =
        "/proc/" + std::to_string(program->pid()) + "/task/" + std::to_string(program->pid()) + "/children";

    wait_for_file(reached);
    ASSERT_EQ(::kill(std::stoi(read_file(task)), SIGKILL), 0);

    const ProgramResult result = program->finish();

    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "mail_responders_refresh: the rebuild's keeper was killed\n");
    expect_untouched(responders);
    expect_untouched(handlers);
}

std::uint64_t blocked_signals(pid_t process)
{
    const std::string status = read_file("/proc/" + std::to_string(process) + "/status");
    const std::string name = "SigBlk:\t";

    return std::stoull(status.substr(status.find(name) + name.size(), 16), nullptr, 16);
}

/* Stopped there by the one signal that nobody can hold back. */
TEST_F(InterruptionTest, NothingEndsOrStopsItWhileTheStoresAreLocked)
{
    const std::unique_ptr<Program> program = start_traced(
        {"-o", "/dev/null", "-e", "trace=fdatasync", "-e", "inject=fdatasync:signal=SIGSTOP:when=1"});

    wait_for_file(responder_store + "-journal");

    const std::uint64_t blocked = blocked_signals(program->pid());

    for (const int number : {SIGTERM, SIGTSTP, SIGTTIN, SIGTTOU})
        EXPECT_NE(blocked & (std::uint64_t{1} << (number - 1)), 0U) << ::strsignal(number);
    while (program->is_running()) {
        EXPECT_EQ(::kill(program->pid(), SIGCONT), 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    EXPECT_EQ(program->finish().status, 0);
    expect_fresh();
}

/* A signal that its parent has it ignore, as nohup does with SIGHUP, stays ignored. */
TEST_F(InterruptionTest, IgnoredSignalStaysIgnored)
{
    ProgramOptions options;

    options.argv = {"mail_responders_refresh"};
    options.ignored = {SIGHUP};
    write_utility(": >" + reached + "; while test ! -e /run/once; do sleep 0.01; done; " + stand_in);

    Program program(KOLMO_REFRESH_PROGRAM, options);

    wait_for_file(reached);
    EXPECT_EQ(::kill(program.pid(), SIGHUP), 0);
    write_file("/run/once", "");
    EXPECT_EQ(program.finish().status, 0);
}

/* What a killed one noted is removed only if it is what a refresh makes, and links are not followed. */
TEST_F(InterruptionTest, WhatIsNotARefreshsIsNotRemoved)
{
    const std::string name = "/run/mail_responders_refresh-staging.0123456789abcdef";
    const struct {
        const char *what;
        std::string folder;
        std::function<void()> make;
    } rows[] = {
        {"another name", "/run/other",
         [] {
             fs::create_directory("/run/other");
         }},
        {"readable for others", name,
         [&] {
             fs::create_directory(name);
         }},
        {"of another owner", name,
         [&] {
             fs::create_directory(name);
             EXPECT_EQ(::chmod(name.c_str(), 0700) + ::chown(name.c_str(), 1, 1), 0);
         }},
        {"a link", name,
         [&] {
             fs::create_directory_symlink("/run/kept", name);
         }},
        {"a file", name,
         [&] {
             write_file(name, "text");
         }},
    };

    fs::create_directory("/run/kept");
    write_file("/run/kept/file", "text");
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        row.make();
        write_file(run_lock_path, "1\n" + row.folder + "\n");

        const ProgramResult result = refresh({"--quiet"});

        EXPECT_EQ(result.status, 0);
        EXPECT_NE(unwrapped(result.err).find("what it has left at " + row.folder + " cannot be removed"),
                  std::string::npos)
            << result.err;
        EXPECT_TRUE(fs::exists(fs::symlink_status(row.folder)));
        EXPECT_TRUE(fs::exists("/run/kept/file"));
        fs::remove_all(row.folder);
    }
    fs::create_directory(name);
    ASSERT_EQ(::chmod(name.c_str(), 0700), 0);
    fs::create_directory_symlink("/run/kept", name + "/link");
    write_file(run_lock_path, "1\n" + name + "\n");
    EXPECT_EQ(refresh().status, 0);
    EXPECT_FALSE(fs::exists(name));
    EXPECT_TRUE(fs::exists("/run/kept/file"));
    fs::remove_all("/run/kept");
}

} // namespace

} // namespace kolmo
