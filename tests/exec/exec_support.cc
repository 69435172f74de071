#include "tests/exec/exec_support.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/output_capture.h"

namespace kolmo::testing
{

const char *const helper = KOLMO_CHILD_HELPER;

Orders::Orders(const std::vector<const char *> &words) : argv_{helper}
{
    argv_.insert(argv_.end(), words.begin(), words.end());
    argv_.push_back(nullptr);
}

Observed observe(const std::function<int()> &run)
{
    int result = 0;
    const Output shown = output_of([&] {
        errno = 0;
        result = run();
    });

    return {result, shown.err, shown.out};
}

std::string open_descriptors(int end)
{
    std::string list;

    for (int fd = 0; fd < end; fd++) {
        if (fcntl(fd, F_GETFD) >= 0)
            list += (list.empty() ? "" : " ") + std::to_string(fd);
    }
    return list;
}

HeldInput::HeldInput() : saved_(dup(STDIN_FILENO))
{
    int ends[2];

    if (pipe(ends) != 0) {
        ADD_FAILURE() << "no pipe";
        return;
    }

    const Fd read_end(ends[0]);

    write_end_.reset(ends[1]);
    EXPECT_EQ(dup2(read_end.get(), STDIN_FILENO), STDIN_FILENO);
}

HeldInput::~HeldInput()
{
    (void)dup2(saved_.get(), STDIN_FILENO);
}

void fill_descriptors(int first, int last)
{
    const int source = open("/dev/null", O_RDWR);

    for (int fd = first; fd <= last; fd++) {
        if (fd != source && dup2(source, fd) != fd)
            std::abort();
    }
    if (source < first || source > last)
        close(source);
}

void close_streams(int bits)
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
        if ((bits & (1 << fd)) != 0)
            (void)close(fd);
    }
}

std::string in_child(const std::function<std::string()> &body)
{
    constexpr std::size_t size = 65536;
    auto *shared =
        static_cast<char *>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const pid_t pid = fork();

    if (pid == 0) {
        alarm(30);
        (void)std::snprintf(shared, size, "%s", body().c_str());
        _exit(0);
    }
    const int status = raw_status(pid);
    std::string text = shared;
    if (status != 0)
        text = "ended with status " + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -status);
    munmap(shared, size);
    return text;
}

long number_after(const std::string &text, const std::string &prefix)
{
    const std::size_t at = text.find(prefix);

    return at == std::string::npos ? -1 : std::strtol(text.c_str() + at + prefix.size(), nullptr, 10);
}

void end_process(long pid)
{
    if (pid <= 1) { /* 0 and below would be whole groups */
        ADD_FAILURE() << "no process id: " << pid;
        return;
    }
    (void)kill(static_cast<pid_t>(pid), SIGKILL);
    (void)raw_status(static_cast<pid_t>(pid));
}

int raw_status(pid_t pid)
{
    int status = -1;

    (void)waitpid(pid, &status, 0);
    return status;
}

void await_end()
{
    siginfo_t ended = {};

    (void)waitid(P_ALL, 0, &ended, WEXITED | WNOWAIT);
}

ExecTest::ExecTest() : descriptors_(open_descriptors())
{
    alarm(40); /* a test that hangs ends the program */
}

ExecTest::~ExecTest()
{
    alarm(0);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
    EXPECT_EQ(open_descriptors(), descriptors_);
}

} // namespace kolmo::testing
