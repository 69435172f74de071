#include "tests/fuzz/fake_child.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/owned.h"

using kolmo::testing::ChildStep;

extern "C" {
int __real_pipe(int ends[2]);
int __real_select(int count, fd_set *reads, fd_set *writes, fd_set *errors, timeval *timeout);

int __wrap_pipe(int ends[2]);
pid_t __wrap_fork();
int __wrap_select(int count, fd_set *reads, fd_set *writes, fd_set *errors, timeval *timeout);
pid_t __wrap_waitpid(pid_t pid, int *status, int options);
}

namespace kolmo::testing
{

namespace
{

struct Child {
    ChildPlan plan;
    std::size_t next = 0;
    bool has_ended = false;
    std::string unwritten; /* of the latest print, for want of room in the pipe */
    std::vector<Fd> streams;

    void print(std::size_t stream, const std::string &text);
    void close_stream(std::size_t stream);
    bool step();
};

Child child;

/* On a stream that was closed, or that nobody captures, nothing is printed. */
void Child::print(std::size_t stream, const std::string &text)
{
    const ssize_t written =
        stream < streams.size() ? write(streams[stream].get(), text.data(), text.size()) : -1;

    unwritten =
        written < 0 && errno != EAGAIN ? "" : text.substr(static_cast<std::size_t>(std::max(written, 0L)));
}

void Child::close_stream(std::size_t stream)
{
    if (stream < streams.size())
        streams[stream].reset();
}

/* False when the parent's look is to be interrupted or in vain. */
bool Child::step()
{
    if (next == plan.steps.size()) {
        has_ended = true;
        for (std::size_t stream = 0; stream < streams.size() && !plan.holds; stream++)
            close_stream(stream);
        return true;
    }

    const ChildStep &now = plan.steps[next];
    const bool prints = now.kind == ChildStep::print_out || now.kind == ChildStep::print_err;

    if (prints)
        print(now.kind, unwritten.empty() ? now.text : std::exchange(unwritten, ""));
    else if (now.kind == ChildStep::close_out || now.kind == ChildStep::close_err)
        close_stream(now.kind - ChildStep::close_out);
    if (unwritten.empty())
        next++;
    errno = EINTR;
    return now.kind != ChildStep::pause && now.kind != ChildStep::interrupt;
}

} // namespace

void plan_child(const ChildPlan &plan)
{
    child.plan = plan;
    child.next = 0;
    child.has_ended = false;
    child.unwritten.clear();
    child.streams.clear();
}

void end_child()
{
    child.streams.clear();
}

} // namespace kolmo::testing

int __wrap_pipe(int ends[2])
{
    using kolmo::testing::child;
    const int result = __real_pipe(ends);

    child.streams.emplace_back(fcntl(ends[1], F_DUPFD_CLOEXEC, 0));
    (void)fcntl(ends[1], F_SETFL, O_NONBLOCK);
    return result;
}

pid_t __wrap_fork()
{
    return kolmo::testing::fake_pid;
}

int __wrap_select(int count, fd_set *reads, fd_set *writes, fd_set *errors, timeval *timeout)
{
    using kolmo::testing::child;
    const bool interrupted =
        child.next < child.plan.steps.size() && child.plan.steps[child.next].kind == ChildStep::interrupt;

    if (!child.step())
        return interrupted ? -1 : 0;
    *timeout = {0, 0}; /* what is not there by now will not come */

    int ready;

    do /* the fuzzer's own alarm is no affair of the parent's */
        ready = __real_select(count, reads, writes, errors, timeout);
    while (ready < 0 && errno == EINTR);
    return ready;
}

pid_t __wrap_waitpid(pid_t pid, int *status, int options)
{
    using kolmo::testing::child;

    if ((options & WNOHANG) != 0 && !child.has_ended)
        return 0;
    *status = child.plan.status;
    return pid;
}
