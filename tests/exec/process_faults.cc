#include "tests/exec/process_faults.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/select.h>
#include <sys/uio.h>
#include <unistd.h>

namespace kolmo::testing
{

namespace
{

struct {
    bool is_set = false;
    Call call = Call::dup2;
    int left = 0;
    int error = 0;
    std::function<void()> before;
} fault;

struct {
    bool is_set = false;
    pid_t result = 0;
    int status = 0;
    int error = 0;
} wait_answer;

struct {
    bool is_set = false;
    std::optional<std::vector<std::string>> names;
    std::size_t next = 0;
    int table_size = 0;
    int end_error = 0;
    dirent entry = {};
    std::string closed;
} descriptors;

constexpr int own_descriptor = 901;

SelectWatch *select_watch = nullptr;
bool execv_is_shown = false;
bool writes_are_shown = false;
int forks = 0;

/* Counts the call; true, with errno, when it is the one to fail. */
bool fails(Call call)
{
    if (!fault.is_set || fault.call != call || --fault.left != 0)
        return false;
    if (fault.before)
        fault.before();
    errno = fault.error;
    return true;
}

dirent *next_entry()
{
    if (descriptors.next == descriptors.names->size()) {
        if (descriptors.end_error != 0)
            errno = descriptors.end_error;
        return nullptr;
    }
    const std::string &name = (*descriptors.names)[descriptors.next++];
    const std::string shown = name == "*" ? std::to_string(own_descriptor) : name;
    (void)std::snprintf(descriptors.entry.d_name, sizeof descriptors.entry.d_name, "%s", shown.c_str());
    return &descriptors.entry;
}

} // namespace

Fault::Fault(Call call, int nth, int error, std::function<void()> before)
{
    EXPECT_FALSE(fault.is_set) << "two at a time";
    fault = {true, call, nth, error, std::move(before)};
}

Fault::~Fault()
{
    fault = {};
}

bool Fault::has_fired()
{
    return fault.left <= 0;
}

FakeWait::FakeWait(pid_t result, int status, int error)
{
    wait_answer = {true, result, status, error};
}

FakeWait::~FakeWait()
{
    wait_answer = {};
}

SelectWatch::SelectWatch()
{
    select_watch = this;
}

SelectWatch::~SelectWatch()
{
    select_watch = nullptr;
}

ExecvShown::ExecvShown()
{
    execv_is_shown = true;
}

ExecvShown::~ExecvShown()
{
    execv_is_shown = false;
}

WritesShown::WritesShown()
{
    writes_are_shown = true;
}

WritesShown::~WritesShown()
{
    writes_are_shown = false;
}

ForkCount::ForkCount() : before_(forks) {}

int ForkCount::count() const
{
    return forks - before_;
}

FakeDescriptors::FakeDescriptors(std::optional<std::vector<std::string>> names, int table_size, int end_error)
{
    descriptors = {true, std::move(names), 0, table_size, end_error, {}, {}};
}

FakeDescriptors::~FakeDescriptors()
{
    descriptors = {};
}

std::string FakeDescriptors::closed() const
{
    return descriptors.closed;
}

} // namespace kolmo::testing

using namespace kolmo::testing;

extern "C" {

int __real_close(int fd);
int __real_dirfd(DIR *directory);
int __real_dup2(int from, int to);
int __real_execv(const char *path, char *const argv[]);
int __real_fcntl(int fd, int command, ...);
pid_t __real_fork(void);
int __real_getdtablesize(void);
int __real_open(const char *path, int flags, ...);
DIR *__real_opendir(const char *path);
int __real_pipe(int ends[2]);
std::FILE *__real_popen(const char *command, const char *mode);
ssize_t __real_read(int fd, void *bytes, std::size_t size);
dirent *__real_readdir(DIR *directory);
int __real_select(int count, fd_set *read, fd_set *write, fd_set *except, timeval *timeout);
pid_t __real_waitpid(pid_t pid, int *status, int options);
ssize_t __real_write(int fd, const void *bytes, std::size_t size);

int __wrap_close(int fd)
{
    if (!descriptors.is_set)
        return __real_close(fd);
    descriptors.closed += (descriptors.closed.empty() ? "" : " ") + std::to_string(fd);
    errno = EBADF; /* as most of a table's numbers would give */
    return -1;
}

int __wrap_dirfd(DIR *directory)
{
    return descriptors.is_set ? own_descriptor : __real_dirfd(directory);
}

int __wrap_dup2(int from, int to)
{
    return fails(Call::dup2) ? -1 : __real_dup2(from, to);
}

int __wrap_execv(const char *path, char *const argv[])
{
    if (!execv_is_shown)
        return __real_execv(path, argv);
    (void)std::printf("%s\n", path);
    for (; *argv != nullptr; argv++)
        (void)std::printf("[%s]\n", *argv);
    (void)std::fflush(stdout);
    _exit(1);
}

int __wrap_fcntl(int fd, int command, ...)
{
    std::va_list arguments;

    va_start(arguments, command);
    const long argument = va_arg(arguments, long); /* absent, an int or a pointer: all fit in a register */
    va_end(arguments);
    return fails(Call::fcntl) ? -1 : __real_fcntl(fd, command, argument);
}

pid_t __wrap_fork(void)
{
    forks++;
    return fails(Call::fork) ? -1 : __real_fork();
}

int __wrap_getdtablesize(void)
{
    return descriptors.is_set ? descriptors.table_size : __real_getdtablesize();
}

int __wrap_open(const char *path, int flags, ...)
{
    std::va_list arguments;

    va_start(arguments, flags);
    const unsigned mode = va_arg(arguments, unsigned);
    va_end(arguments);
    return fails(Call::open) ? -1 : __real_open(path, flags, mode);
}

DIR *__wrap_opendir(const char *path)
{
    if (descriptors.is_set && !descriptors.names.has_value()) {
        errno = ENOENT;
        return nullptr;
    }
    return __real_opendir(path);
}

int __wrap_pipe(int ends[2])
{
    return fails(Call::pipe) ? -1 : __real_pipe(ends);
}

std::FILE *__wrap_popen(const char *command, const char *mode)
{
    return fails(Call::popen) ? nullptr : __real_popen(command, mode);
}

ssize_t __wrap_read(int fd, void *bytes, std::size_t size)
{
    return fails(Call::read) ? -1 : __real_read(fd, bytes, size);
}

dirent *__wrap_readdir(DIR *directory)
{
    return descriptors.is_set ? next_entry() : __real_readdir(directory);
}

int __wrap_select(int count, fd_set *read, fd_set *write, fd_set *except, timeval *timeout)
{
    if (select_watch != nullptr) {
        bool is_blocking = false;
        for (int fd = 0; fd < count; fd++)
            is_blocking |= FD_ISSET(fd, read) && (__real_fcntl(fd, F_GETFL) & O_NONBLOCK) == 0;
        select_watch->calls.push_back({timeout->tv_sec * 1000 + timeout->tv_usec / 1000, is_blocking});
        if (select_watch->on_call)
            select_watch->on_call();
    }
    if (fails(Call::select))
        return errno == 0 ? 0 : -1;
    return __real_select(count, read, write, except, timeout);
}

ssize_t __wrap_write(int fd, const void *bytes, std::size_t size)
{
    char brackets[] = "[]";
    const iovec pieces[] = {{brackets, 1}, {const_cast<void *>(bytes), size}, {brackets + 1, 1}};

    return writes_are_shown ? writev(fd, pieces, 3) : __real_write(fd, bytes, size);
}

pid_t __wrap_waitpid(pid_t pid, int *status, int options)
{
    if (wait_answer.is_set) {
        if (wait_answer.result > 0)
            *status = wait_answer.status;
        if (wait_answer.error != 0)
            errno = wait_answer.error;
        return wait_answer.result;
    }
    return fails(Call::waitpid) ? -1 : __real_waitpid(pid, status, options);
}

} // extern "C"
