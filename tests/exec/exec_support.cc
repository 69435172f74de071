#include "tests/exec/exec_support.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolmo::testing
{

const char *const helper = KOLMO_CHILD_HELPER;

Orders::Orders(std::initializer_list<const char *> words) : argv_{helper}
{
    argv_.insert(argv_.end(), words);
    argv_.push_back(nullptr);
}

StreamCapture::StreamCapture(int fd) : fd_(fd), saved_(fcntl(fd, F_DUPFD_CLOEXEC, 3)), file_(std::tmpfile())
{
    (void)std::fflush(nullptr);
    EXPECT_GE(dup2(fileno(file_), fd_), 0);
}

StreamCapture::~StreamCapture()
{
    const std::string all = text();

    EXPECT_GE(dup2(saved_, fd_), 0);
    close(saved_);
    if (::testing::Test::HasFailure()) /* the failures' own messages may be among it */
        (void)!write(fd_, all.data(), all.size());
    (void)std::fclose(file_);
}

std::string StreamCapture::text() const
{
    std::string all;
    char chunk[4096];
    ssize_t count;

    (void)std::fflush(nullptr);
    while ((count = pread(fileno(file_), chunk, sizeof chunk, static_cast<off_t>(all.size()))) > 0)
        all.append(chunk, static_cast<std::size_t>(count));
    return all;
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

ExecTest::ExecTest() : descriptors_(open_descriptors())
{
    alarm(40); /* a test that hangs ends the program */
}

ExecTest::~ExecTest()
{
    alarm(0);
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "a child is left";
    EXPECT_EQ(descriptors_, open_descriptors());
}

} // namespace kolmo::testing
