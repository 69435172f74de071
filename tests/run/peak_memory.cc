/*
 * peak_memory: run a program and note the most memory that it held.
 *
 *   peak_memory FILE PROGRAM [ARGUMENT...]
 *
 * Writes the program's greatest resident set into FILE, in KiB.  Exit status: the program's, 255 when a
 * signal ended it, 125 when it could not be started.
 *
 * A program of its own, because the kernel counts what a process held before its exec as well: the parent
 * has to be smaller than what is measured, and a test program is not.
 */
#include <cstdio>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

int note(const char *path, long kibibytes)
{
    std::FILE *const file = std::fopen(path, "w");

    if (file == nullptr)
        return -1;
    (void)std::fprintf(file, "%ld\n", kibibytes);
    return std::fclose(file);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 3)
        return 125;

    const pid_t pid = fork();

    if (pid == 0) {
        (void)execv(argv[2], argv + 2);
        _exit(125);
    }

    int status = 0;
    rusage usage = {};

    if (pid < 0 || wait4(pid, &status, 0, &usage) != pid || note(argv[1], usage.ru_maxrss) != 0)
        return 125;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 255;
}
