#include "exec/start_child.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include "exec/closefrom.h"

namespace kolmo
{

namespace
{

/* 0, or -1 with the errno of open or dup2. */
int install_stream(int fd, int stream)
{
    const int source = fd == -1 ? ::open("/dev/null", O_RDWR) : fd;

    if (source == stream) /* left as inherited; or it was closed, and open has filled the lowest gap */
        return 0;
    if ((fd == -1 && source < 0) || ::dup2(source, stream) < 0)
        return -1;
    (void)::close(source);
    return 0;
}

[[noreturn]] void run_in_child(const int (&streams)[3], const char *path, const char *const argv[],
                               ExecvComplaint complain)
{
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; stream++) {
        if (install_stream(streams[stream], stream) != 0) {
            (void)std::fprintf(stderr, "fork_execv: dup() failed: %s\n", std::strerror(errno));
            std::exit(-1);
        }
    }
    closefrom(STDERR_FILENO + 1);
    /* execv takes its arguments as writable for the sake of old callers; it does not write to them. */
    (void)::execv(path, const_cast<char *const *>(argv));
    complain(path, errno);
    std::exit(-1);
}

} // namespace

pid_t start_child(const int (&streams)[3], const char *path, const char *const argv[],
                  ExecvComplaint complain)
{
    (void)std::fflush(nullptr); /* a child that ends by exit would write the buffers once more */
    const pid_t pid = ::fork();
    if (pid == 0)
        run_in_child(streams, path, argv, complain);
    return pid;
}

} // namespace kolmo
