/*
 * shim: preloaded into a run, it lets memory run out and transfers stop half-way, and says how the run ended.
 *
 * strace injects what fails and what is killed; this does what strace cannot.  It counts from the entry of
 * main on, in the program's process only, and keeps itself from whatever the program starts.  The call
 * getppid marks main's entry in a trace: neither the program nor its libraries make it.
 *
 *   TORTURE_REPORT=FILE     what is found goes there, a line each:
 *                             failed FRAME ...          the allocation that failed, from the caller outwards
 *                             crash SIGNAL FRAME ...
 *                             open NUMBER TARGET        a descriptor above 2 when main returned
 *                             count NAME N              calls seen, at the end
 *                             place OFFSET ...          each allocation's, in the program only
 * (TORTURE_PLACES) TORTURE_MEMORY=N[+]     the Nth allocation fails, with + each later one, too
 *   TORTURE_HALF=NAME:N     the Nth call of NAME transfers half of what was asked for
 *   TORTURE_STOP_CHILD=1    a child process stops itself, to be traced
 *   TORTURE_PLACES=1        says of each allocation where it was made
 *
 * A frame is MODULE+OFFSET(SYMBOL), the symbol only where the module exports it.
 */
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

pid_t program;
bool in_main;
bool reporting; /* what a report allocates is not counted */

char report_path[256];
long memory_from, memory_seen;
bool memory_stays_short, stop_child, tell_places;

enum Transfer { t_read, t_write, t_pread64, t_pwrite64, t_recv, t_send, transfers };
const char *const transfer_names[transfers] = {"read", "write", "pread64", "pwrite64", "recv", "send"};
long transfers_seen[transfers], half_at;
int half_of = transfers;

template <typename Function>
Function *next(Function *, const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

/* By the bare call: the program's own calls are counted, this one is not. */
void report(const char *text)
{
    const long fd =
        syscall(SYS_openat, AT_FDCWD, report_path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);

    (void)syscall(SYS_write, fd, text, std::strlen(text));
    (void)syscall(SYS_close, fd);
}

void report_frames(const char *what)
{
    char line[4096];
    void *frames[24];
    std::size_t length = static_cast<std::size_t>(std::snprintf(line, sizeof line, "%s", what));
    Dl_info self = {};

    reporting = true;
    (void)dladdr(reinterpret_cast<void *>(&report), &self);
    const int count = backtrace(frames, 24);
    for (int i = 0; i < count && length < sizeof line - 300; i++) {
        Dl_info info = {};

        if (dladdr(static_cast<char *>(frames[i]) - 1, &info) == 0 || info.dli_fname == nullptr ||
            info.dli_fbase == self.dli_fbase)
            continue;
        const char *const slash = std::strrchr(info.dli_fname, '/');
        const long offset = static_cast<char *>(frames[i]) - 1 - static_cast<char *>(info.dli_fbase);
        length += static_cast<std::size_t>(std::snprintf(
            line + length, 200, " %.60s+%lx(%.100s)", slash != nullptr ? slash + 1 : info.dli_fname,
            static_cast<unsigned long>(offset), info.dli_sname != nullptr ? info.dli_sname : ""));
    }
    (void)std::strcat(line, "\n");
    report(line);
    reporting = false;
}

int (*real_main)(int, char **, char **);

/* The way through the program's own functions: one that leads into a library by another way is another place.
 */
void report_place()
{
    constexpr long program_size = 1L << 28; /* at most; no library is that near */
    char line[1024] = "place";
    void *frames[48];
    std::size_t length = std::strlen(line);
    Dl_info info = {};

    reporting = true;
    (void)dladdr(reinterpret_cast<void *>(real_main), &info);
    const int count = backtrace(frames, 48);
    for (int i = 0; i < count && length < sizeof line - 20; i++) {
        const long offset = static_cast<char *>(frames[i]) - static_cast<char *>(info.dli_fbase);

        if (offset >= 0 && offset < program_size)
            length += static_cast<std::size_t>(
                std::snprintf(line + length, 20, " %lx", static_cast<unsigned long>(offset)));
    }
    (void)std::strcat(line, "\n");
    report(line);
    reporting = false;
}

bool memory_is_short()
{
    if (!in_main || reporting)
        return false;
    memory_seen++;
    if (tell_places)
        report_place();
    if (memory_from == 0 || memory_seen < memory_from || (memory_seen > memory_from && !memory_stays_short))
        return false;
    if (memory_seen == memory_from)
        report_frames("failed");
    errno = ENOMEM;
    return true;
}

std::size_t cut(Transfer transfer, std::size_t size)
{
    if (!in_main)
        return size;
    const bool half = ++transfers_seen[transfer] == half_at && transfer == half_of && size > 1;

    if (half)
        report("half\n");
    return half ? size / 2 : size;
}

void on_crash(int number)
{
    char what[32];

    (void)std::snprintf(what, sizeof what, "crash %s", sigabbrev_np(number));
    report_frames(what);
    (void)std::signal(number, SIG_DFL);
    (void)std::raise(number);
}

void take_options()
{
    const char *const memory = std::getenv("TORTURE_MEMORY");
    const char *const half = std::getenv("TORTURE_HALF");

    if (memory != nullptr) {
        memory_from = std::atol(memory);
        memory_stays_short = std::strchr(memory, '+') != nullptr;
    }
    if (half != nullptr) {
        const char *const colon = std::strchr(half, ':');

        half_at = std::atol(colon + 1);
        for (half_of = 0; half_of < transfers; half_of++)
            if (std::strncmp(half, transfer_names[half_of], static_cast<std::size_t>(colon - half)) == 0 &&
                transfer_names[half_of][colon - half] == '\0')
                break;
    }
    stop_child = std::getenv("TORTURE_STOP_CHILD") != nullptr;
    tell_places = std::getenv("TORTURE_PLACES") != nullptr;
    (void)std::snprintf(report_path, sizeof report_path, "%s", std::getenv("TORTURE_REPORT"));
    for (const char *name : {"LD_PRELOAD", "TORTURE_REPORT", "TORTURE_MEMORY", "TORTURE_HALF",
                             "TORTURE_STOP_CHILD", "TORTURE_PLACES"})
        (void)unsetenv(name);
}

[[gnu::constructor]] void start()
{
    void *frame;
    static char alternate[65536];
    const stack_t stack = {alternate, 0, sizeof alternate};
    struct sigaction crash = {};

    take_options();
    program = getpid();
    (void)backtrace(&frame, 1); /* loads the unwinder, and allocates, this once */
    (void)sigaltstack(&stack, nullptr);
    crash.sa_handler = on_crash;
    crash.sa_flags = SA_ONSTACK;
    for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT})
        (void)sigaction(number, &crash, nullptr);
}

void report_open()
{
    char line[512], name[64], target[256];

    for (int fd = 3; fd < 64; fd++) {
        (void)std::snprintf(name, sizeof name, "/proc/self/fd/%d", fd);
        const ssize_t length = readlink(name, target, sizeof target - 1);

        if (length < 0)
            continue;
        target[length] = '\0';
        (void)std::snprintf(line, sizeof line, "open %d %s\n", fd, target);
        report(line);
    }
}

[[gnu::destructor]] void report_counts()
{
    char line[64];

    if (getpid() != program)
        return;
    in_main = false;
    (void)std::snprintf(line, sizeof line, "count memory %ld\n", memory_seen);
    report(line);
    for (int i = 0; i < transfers; i++) {
        (void)std::snprintf(line, sizeof line, "count %s %ld\n", transfer_names[i], transfers_seen[i]);
        report(line);
    }
}

int marked_main(int argc, char **argv, char **environment)
{
    (void)syscall(SYS_getppid);
    in_main = true;
    const int status = real_main(argc, argv, environment);
    in_main = false;
    if (getpid() == program)
        report_open(); /* who ends by exit in mid-work leaves closing to the kernel */
    return status;
}

} // namespace

/* glibc's own functions under the names that it keeps for interposers. */
extern "C" {
void *__libc_malloc(std::size_t size);
void *__libc_calloc(std::size_t count, std::size_t size);
void *__libc_realloc(void *old, std::size_t size);
void *__libc_memalign(std::size_t alignment, std::size_t size);

void *malloc(std::size_t size)
{
    return memory_is_short() ? nullptr : __libc_malloc(size);
}

void *calloc(std::size_t count, std::size_t size)
{
    return memory_is_short() ? nullptr : __libc_calloc(count, size);
}

void *realloc(void *old, std::size_t size)
{
    return memory_is_short() ? nullptr : __libc_realloc(old, size);
}

void *aligned_alloc(std::size_t alignment, std::size_t size)
{
    return memory_is_short() ? nullptr : __libc_memalign(alignment, size);
}

void *memalign(std::size_t alignment, std::size_t size)
{
    return memory_is_short() ? nullptr : __libc_memalign(alignment, size);
}

int posix_memalign(void **result, std::size_t alignment, std::size_t size)
{
    if (memory_is_short())
        return ENOMEM;
    *result = __libc_memalign(alignment, size);
    return *result != nullptr ? 0 : ENOMEM;
}

ssize_t read(int fd, void *bytes, std::size_t size)
{
    static auto *const real = next(&read, "read");
    return real(fd, bytes, cut(t_read, size));
}

ssize_t write(int fd, const void *bytes, std::size_t size)
{
    static auto *const real = next(&write, "write");
    return real(fd, bytes, cut(t_write, size));
}

ssize_t pread64(int fd, void *bytes, std::size_t size, off64_t offset)
{
    static auto *const real = next(&pread64, "pread64");
    return real(fd, bytes, cut(t_pread64, size), offset);
}

ssize_t pwrite64(int fd, const void *bytes, std::size_t size, off64_t offset)
{
    static auto *const real = next(&pwrite64, "pwrite64");
    return real(fd, bytes, cut(t_pwrite64, size), offset);
}

ssize_t recv(int fd, void *bytes, std::size_t size, int flags)
{
    static auto *const real = next(&recv, "recv");
    return real(fd, bytes, cut(t_recv, size), flags);
}

ssize_t send(int fd, const void *bytes, std::size_t size, int flags)
{
    static auto *const real = next(&send, "send");
    return real(fd, bytes, cut(t_send, size), flags);
}

pid_t fork()
{
    static auto *const real = next(&fork, "fork");
    const pid_t pid = real();

    if (pid == 0) {
        in_main = false;
        if (stop_child)
            (void)std::raise(SIGSTOP);
    }
    return pid;
}

int __libc_start_main(int (*main)(int, char **, char **), int argc, char **argv, void (*init)(),
                      void (*fini)(), void (*linker_fini)(), void *stack_end)
{
    static auto *const real = next(&__libc_start_main, "__libc_start_main");

    real_main = main;
    return real(marked_main, argc, argv, init, fini, linker_fini, stack_end);
}
}
