#include "tests/support/program_run.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolmo::testing
{

namespace
{

struct Ends {
    Fd read;
    Fd write;
};

Ends open_ends()
{
    int fds[2];

    if (::pipe2(fds, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "no pipe";
        return {};
    }
    return {Fd(fds[0]), Fd(fds[1])};
}

std::vector<char *> pointers_to(std::vector<std::string> &texts)
{
    std::vector<char *> pointers;

    pointers.reserve(texts.size() + 1);
    for (std::string &text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

/* Reads once; closes the descriptor at the end of the stream. */
void read_into(Fd *fd, std::string *text)
{
    char chunk[65536];
    const ssize_t length = ::read(fd->get(), chunk, sizeof chunk);

    if (length > 0)
        text->append(chunk, static_cast<std::size_t>(length));
    else
        fd->reset();
}

int decode(int raw_status)
{
    return WIFSIGNALED(raw_status) ? 1000 + WTERMSIG(raw_status) : WEXITSTATUS(raw_status);
}

} // namespace

Program::Program(const std::string &path, const ProgramOptions &options)
    : start_(Clock::now()), deadline_(start_ + options.deadline)
{
    std::vector<std::string> texts = options.argv;
    const std::vector<char *> argv = pointers_to(texts);
    Ends out = open_ends();
    Ends err = open_ends();

    out_ = std::move(out.read);
    err_ = std::move(err.read);
    pid_ = ::fork();
    if (pid_ == 0) {
        (void)::dup2(out.write.get(), STDOUT_FILENO);
        (void)::dup2(err.write.get(), STDERR_FILENO);
        run_child(path, options, argv.data());
    }
    EXPECT_GT(pid_, 0);
}

/* Between fork and exec, and other threads may be running: system calls only. */
void Program::run_child(const std::string &path, const ProgramOptions &options, char *const *argv)
{
    const int input = ::open(options.input.c_str(), O_RDONLY | O_CLOEXEC);

    if (input < 0 || ::dup2(input, STDIN_FILENO) < 0)
        ::_exit(126);
    if (options.file_size != RLIM_INFINITY) {
        const rlimit limit = {options.file_size, options.file_size};

        (void)::signal(SIGXFSZ, SIG_IGN);
        (void)::setrlimit(RLIMIT_FSIZE, &limit);
    }
    for (const int signal_number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE}) /* nohup(1) may be above */
        (void)::signal(signal_number, SIG_DFL);
    for (const int signal_number : options.ignored)
        (void)::signal(signal_number, SIG_IGN);
    for (const int fd : options.closed)
        (void)::close(fd);
    (void)::execv(path.c_str(), argv);
    ::_exit(127);
}

Program::~Program()
{
    if (pid_ <= 0)
        return;
    (void)::kill(pid_, SIGKILL);
    (void)::waitpid(pid_, nullptr, 0);
}

bool Program::is_running()
{
    siginfo_t info = {};

    return ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0;
}

/* False when the deadline came first. */
bool Program::read_output()
{
    while (out_.is_open() || err_.is_open()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline_ - Clock::now());
        pollfd waiting[] = {{out_.get(), POLLIN, 0}, {err_.get(), POLLIN, 0}};

        if (left.count() <= 0 || ::poll(waiting, 2, static_cast<int>(left.count())) <= 0)
            return false;
        if (waiting[0].revents != 0)
            read_into(&out_, &result_.out);
        if (waiting[1].revents != 0)
            read_into(&err_, &result_.err);
    }
    return true;
}

bool Program::wait_until_deadline(int *raw_status)
{
    while (::waitpid(pid_, raw_status, WNOHANG) == 0) {
        if (Clock::now() >= deadline_)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

ProgramResult Program::finish()
{
    int raw_status = 0;

    if (!read_output() || !wait_until_deadline(&raw_status)) {
        ADD_FAILURE() << "killed at its deadline; so far on standard error: " << result_.err;
        (void)::kill(pid_, SIGKILL);
        (void)::waitpid(pid_, &raw_status, 0);
    }
    result_.pid = pid_;
    result_.status = decode(raw_status);
    result_.duration = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start_);
    pid_ = -1;
    return result_;
}

bool has_open(pid_t process, const std::string &program, const std::string &path)
{
    const std::filesystem::path folder = "/proc/" + std::to_string(process);
    std::error_code error;

    if (std::filesystem::read_symlink(folder / "exe", error) != program)
        return false;
    for (const auto &file : std::filesystem::directory_iterator(folder / "fd", error)) {
        if (std::filesystem::read_symlink(file, error).string().starts_with(path))
            return true;
    }
    return false;
}

} // namespace kolmo::testing
