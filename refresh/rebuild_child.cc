#include "refresh/rebuild_child.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <linux/sched.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "handlers_store/handlers_db.h"
#include "refresh/interruption.h"
#include "responder_store/responder_db.h"

namespace kolmo
{

namespace
{

/* What the keeper tells: how the rebuild ended, or what could not be done and errno. */
enum class Step { ended, stay, open_folder, lay_folder, mount_proc, fork, execute, steps };

struct Message {
    Step step;
    int value;
};

constexpr std::array<const char *, static_cast<std::size_t>(Step::steps)> step_texts = {
    "",
    "the rebuild's keeper cannot be bound to this process's end",
    "the staging folders cannot be opened",
    "the staging cannot be laid over the live stores",
    "the rebuild's own /proc cannot be mounted",
    "no process for the rebuild can be had",
    "the rebuild cannot be executed"};

/* As fork(2), into new namespaces, or with the number that the child is to have in its namespace.  The C
   library is not told: until it executes something the child keeps to system calls. */
pid_t clone_process(std::uint64_t flags, pid_t number)
{
    clone_args arguments = {};

    arguments.flags = flags;
    arguments.exit_signal = SIGCHLD;
    if (number > 0) {
        arguments.set_tid = reinterpret_cast<std::uintptr_t>(&number);
        arguments.set_tid_size = 1;
    }
    return static_cast<pid_t>(::syscall(SYS_clone3, &arguments, sizeof arguments));
}

/* A live folder, and what is laid over it. */
struct Cover {
    std::string staged;
    std::string live;
};

/* Everything that is prepared before the fork, so that the children only make system calls. */
struct Plan {
    std::string program;
    bool output_to_stderr = false;
    std::array<Cover, 2> covers;
    pid_t number = 0; /* of the rebuild in its namespace; 0 for any */
};

std::string folder_of(const char *store)
{
    return std::filesystem::path(store).parent_path();
}

Plan make_plan(const RebuildCommand &command)
{
    const pid_t own = ::getpid();

    return {.program = command.program,
            .output_to_stderr = command.output_to_stderr,
            .covers = {{{command.responder_folder, folder_of(responder_db_path)},
                        {command.handlers_folder, folder_of(handlers_db_path)}}},
            .number = own > 1 ? own : 0}; /* 1 is the keeper */
}

/* The first process of the namespace. */
class Keeper
{
public:
    Keeper(const Plan &plan, const HoldSignals &held, int socket) : plan_(plan), held_(held), socket_(socket)
    {
    }

    [[noreturn]] void run();

private:
    void stay_with_parent() const;
    void lay_folders() const;
    [[noreturn]] void execute() const;
    [[noreturn]] void fail(Step step) const;
    void tell(Step step, int value) const;

    const Plan &plan_;
    const HoldSignals &held_;
    int socket_;
};

void Keeper::tell(Step step, int value) const
{
    const Message message = {step, value};

    (void)!::send(socket_, &message, sizeof message, MSG_NOSIGNAL);
}

void Keeper::fail(Step step) const
{
    tell(step, errno);
    ::_exit(1);
}

/* A parent that died before the request was made leaves its end of the socket closed: getppid(2) says nothing
   here, since in this namespace the parent has no number. */
void Keeper::stay_with_parent() const
{
    pollfd parent = {socket_, POLLIN, 0};

    if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0)
        fail(Step::stay);
    if (::poll(&parent, 1, 0) != 0)
        ::_exit(1);
}

/* All are opened before the first is laid over another's path. */
void Keeper::lay_folders() const
{
    std::array<char[32], 2> sources = {};

    for (std::size_t i = 0; i < plan_.covers.size(); i++) {
        const int folder = ::open(plan_.covers[i].staged.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);

        if (folder < 0)
            fail(Step::open_folder);
        (void)std::snprintf(sources[i], sizeof sources[i], "/proc/self/fd/%d", folder);
    }
    for (std::size_t i = 0; i < plan_.covers.size(); i++) {
        if (::mount(sources[i], plan_.covers[i].live.c_str(), nullptr, MS_BIND, nullptr) != 0)
            fail(Step::lay_folder);
    }
}

void Keeper::execute() const
{
    char name[] = "mail_responders_rebuild"; /* what it calls itself in syslog */
    char *const argv[] = {name, nullptr};

    held_.give_up();
    if (!plan_.output_to_stderr || ::dup2(STDERR_FILENO, STDOUT_FILENO) >= 0)
        (void)::execv(plan_.program.c_str(), argv);
    fail(Step::execute);
}

/* The caught signals are held back in this process to its end: the parent's end is all it obeys. */
void Keeper::run()
{
    pid_t ended;
    int status;

    stay_with_parent();
    lay_folders();
    if (::mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0)
        fail(Step::mount_proc);

    const pid_t rebuild = clone_process(0, plan_.number);

    if (rebuild < 0)
        fail(Step::fork);
    if (rebuild == 0)
        execute();
    /* Whatever else is there was left by the rebuild or its utility, and goes with this namespace. */
    do
        ended = ::waitpid(-1, &status, 0);
    while (ended != rebuild && (ended > 0 || errno == EINTR));
    if (ended == rebuild)
        tell(Step::ended, status);
    ::_exit(0);
}

} // namespace

int RebuildChild::start(const RebuildCommand &command, const TroubleSink &trouble)
{
    const Plan plan = make_plan(command);
    int ends[2];

    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        trouble(std::string("no socket for the rebuild's keeper can be had: ") + std::strerror(errno));
        return -1;
    }
    socket_.reset(ends[0]);

    const Fd keeper_end(ends[1]);
    const HoldSignals held;
    const pid_t keeper = clone_process(CLONE_NEWNS | CLONE_NEWPID, 0);

    if (keeper == 0) {
        (void)::close(ends[0]);
        Keeper(plan, held, keeper_end.get()).run();
    }
    if (keeper < 0) {
        trouble(std::string("no process namespace for the rebuild can be had: ") + std::strerror(errno));
        return -1;
    }
    keeper_ = keeper;
    set_child_to_end(keeper);
    return 0;
}

bool RebuildChild::wait(int milliseconds)
{
    pollfd keeper = {socket_.get(), POLLIN, 0};

    return ::poll(&keeper, 1, milliseconds) > 0;
}

int RebuildChild::end(int *status, const TroubleSink &trouble)
{
    Message message = {Step::ended, 0};
    ssize_t length;

    do
        length = ::recv(socket_.get(), &message, sizeof message, 0);
    while (length < 0 && errno == EINTR);

    const HoldSignals held;

    while (::waitpid(keeper_, nullptr, 0) < 0 && errno == EINTR)
        ;
    set_child_to_end(0);
    keeper_ = 0;
    if (length != sizeof message) {
        trouble("the rebuild's keeper was killed");
        return -1;
    }
    if (message.step != Step::ended) {
        trouble(std::string(step_texts[static_cast<std::size_t>(message.step)]) + ": " +
                std::strerror(message.value));
        return -1;
    }
    *status = message.value;
    return 0;
}

RebuildChild::~RebuildChild()
{
    if (keeper_ <= 0)
        return;

    const HoldSignals held;

    (void)::kill(keeper_, SIGKILL);
    while (::waitpid(keeper_, nullptr, 0) < 0 && errno == EINTR)
        ;
    set_child_to_end(0);
}

} // namespace kolmo
