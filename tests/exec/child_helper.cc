/*
 * child_helper: the program that the tests run as a child.  It does what its arguments say, in their order:
 *
 *   out N, err N     print N times 'o' on standard output, 'e' on standard error
 *   say TEXT         print the text on standard error
 *   argv             print every argument from 0 on, one in a line, on standard output; reads no further
 *   fds              print the open descriptors on standard output, and after them where 0 to 2 lead
 *   input            read standard input to its end and print it on standard output
 *   sleep MS         wait
 *   close FD         close a descriptor
 *   hold             leave a process behind that keeps standard output and error open; print its id
 *   stop             stop itself
 *   signal N         die by this signal
 *   exit N           end with this status (0 at the end of the arguments)
 *
 * An alarm ends it, and what it leaves behind, should the test fail to.
 */
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace
{

constexpr unsigned time_limit = 60; /* seconds */

void print(int fd, const std::string &text)
{
    std::size_t done = 0;

    while (done < text.size()) {
        const ssize_t count = write(fd, text.data() + done, text.size() - done);
        if (count < 0)
            std::_Exit(99);
        done += static_cast<std::size_t>(count);
    }
}

void print_descriptors()
{
    std::string list;

    for (int fd = 0; fd < getdtablesize(); fd++) {
        if (fcntl(fd, F_GETFD) >= 0)
            list += std::to_string(fd) + ' ';
    }
    for (int fd = 0; fd <= 2; fd++) {
        char target[256] = {};
        if (readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof target - 1) > 0)
            list += std::string(target) + ' ';
    }
    print(1, list);
}

void print_input()
{
    char chunk[4096];
    ssize_t count;

    while ((count = read(0, chunk, sizeof chunk)) > 0)
        print(1, std::string(chunk, static_cast<std::size_t>(count)));
    if (count < 0)
        std::_Exit(99);
}

void leave_one_behind()
{
    const pid_t pid = fork();

    if (pid == 0) {
        alarm(time_limit);
        for (;;)
            pause();
    }
    print(1, std::to_string(pid));
}

void die_by(int signal_number)
{
    const rlimit none = {0, 0};

    (void)setrlimit(RLIMIT_CORE, &none);
    (void)raise(signal_number);
}

void obey(std::string_view order, const char *argument)
{
    const int number = std::atoi(argument);
    const auto count = static_cast<std::size_t>(number);

    if (order == "out")
        print(1, std::string(count, 'o'));
    else if (order == "err")
        print(2, std::string(count, 'e'));
    else if (order == "say")
        print(2, argument);
    else if (order == "sleep")
        usleep(static_cast<useconds_t>(number) * 1000);
    else if (order == "close")
        (void)close(number);
    else if (order == "signal")
        die_by(number);
    else if (order == "exit")
        std::_Exit(number);
    else
        std::_Exit(98);
}

} // namespace

int main(int argc, char *argv[])
{
    alarm(time_limit);
    for (int i = 1; i < argc; i++) {
        const std::string_view order = argv[i];
        if (order == "argv") {
            for (int k = 0; k < argc; k++)
                print(1, std::string(argv[k]) + '\n');
            return 1;
        }
        if (order == "fds")
            print_descriptors();
        else if (order == "input")
            print_input();
        else if (order == "hold")
            leave_one_behind();
        else if (order == "stop")
            (void)raise(SIGSTOP);
        else if (++i < argc)
            obey(order, argv[i]);
    }
    return 0;
}
