#include "tests/refresh/refresh_world.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include "refresh/folder.h"
#include "refresh/lock.h"
#include "tests/support/sandbox.h"
#include "tests/support/wait_until.h"

namespace kolmo::testing
{

namespace
{

namespace fs = std::filesystem;

void run_shell(const std::string &command)
{
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
}

/* The programs, and the keeper, which is the refresh's; a process that ends meanwhile is none, as an
   output stream, unlike an iterator, throws nothing when the kernel refuses the reading. */
bool is_of_a_refresh(const fs::path &process)
{
    std::error_code error;
    const std::string program = fs::read_symlink(process / "exe", error);
    const std::ifstream file(process / "cmdline");
    std::ostringstream arguments;

    arguments << file.rdbuf();

    const std::string line = arguments.str();

    return program == KOLMO_REFRESH_PROGRAM || program == KOLMO_PROGRAM ||
           line.find(utility_path) != std::string::npos || line.find(script_path) != std::string::npos;
}

bool is_number(const std::string &text)
{
    return text.find_first_not_of("0123456789") == std::string::npos;
}

std::vector<fs::path> staging_folders()
{
    std::vector<fs::path> folders;

    for (const char *parent : {"/run", "/run/stage"}) {
        if (!fs::exists(parent))
            continue;
        for (const fs::directory_entry &entry : fs::directory_iterator(parent)) {
            if (entry.path().filename().string().starts_with(staging_prefix))
                folders.push_back(entry.path());
        }
    }
    return folders;
}

Lines files_left()
{
    Lines left;

    for (const fs::path &folder : staging_folders())
        left.push_back("folder " + folder.string());
    for (const std::string &store : {responder_store, handlers_store}) {
        std::error_code is_gone;

        for (const fs::directory_entry &entry :
             fs::directory_iterator(fs::path(store).parent_path(), is_gone)) {
            if (entry.path() != store)
                left.push_back("file " + entry.path().string());
        }
    }
    return left;
}

} // namespace

FileState::FileState(const std::string &file)
    : path(file), exists(fs::exists(file)), bytes(exists ? read_file(file) : "")
{
    if (exists && ::stat(file.c_str(), &status) != 0)
        ADD_FAILURE() << file;
}

void expect_untouched(const FileState &before)
{
    const FileState now(before.path);

    ASSERT_EQ(now.exists, before.exists) << before.path;
    EXPECT_TRUE(now.bytes == before.bytes) << before.path;
    EXPECT_EQ(now.status.st_ino, before.status.st_ino) << before.path;
    EXPECT_EQ(now.status.st_mode, before.status.st_mode) << before.path;
    EXPECT_EQ(now.status.st_mtim.tv_sec, before.status.st_mtim.tv_sec) << before.path;
    EXPECT_EQ(now.status.st_mtim.tv_nsec, before.status.st_mtim.tv_nsec) << before.path;
    EXPECT_EQ(now.status.st_ctim.tv_nsec, before.status.st_ctim.tv_nsec) << before.path;
}

Service::Service(const std::string &commands)
{
    run_shell("rm -f /run/ask /run/answer; mkfifo /run/ask /run/answer");
    process_ = ::fork();
    if (process_ == 0) {
        const std::string script =
            "while read -r line </run/ask; do " + commands + "; echo done >/run/answer; done";

        (void)::setsid();
        (void)::execl("/bin/sh", "sh", "-c", script.c_str(), nullptr);
        ::_exit(127);
    }
    EXPECT_GT(process_, 0);
}

Service::~Service()
{
    (void)::kill(-process_, SIGKILL);
    (void)::waitpid(process_, nullptr, 0);
}

void wait_for_file(const std::string &path)
{
    wait_until([&] { return fs::exists(path); }, path);
}

Lines what_is_left()
{
    Lines left = files_left();
    std::ifstream mounts("/proc/self/mounts");
    std::string line;

    while (std::getline(mounts, line)) {
        if (line.find(staging_prefix) != std::string::npos)
            left.push_back("mount " + line);
    }
    for (const fs::directory_entry &entry : fs::directory_iterator("/proc")) {
        if (is_number(entry.path().filename()) && is_of_a_refresh(entry.path()))
            left.push_back("process " + entry.path().string());
    }
    return left;
}

void RefreshTest::SetUp()
{
    ASSERT_TRUE(in_sandbox()) << "run this in tools/sandbox";
    reset_panel_files();
    panel = std::make_unique<PanelDatabase>();
    panel->reset();
    for (const char *name : {"a.test", "b.test", "c.test"})
        (void)panel->add_mailbox_with_responder(panel->add_domain(name), "info");
    panel->add_alias(1, "alias.test");
    rebuild();
    panel->execute("UPDATE mail_resp SET subject = 'New'");
    /* What a failed test has left is that one's alone. */
    for (const fs::path &folder : staging_folders())
        fs::remove_all(folder);
    fs::remove_all("/run/stage");
    for (const char *name : {"/run/reached", "/run/once", run_lock_path})
        fs::remove(name);
}

void RefreshTest::TearDown()
{
    EXPECT_EQ(what_is_left(), Lines{});
    if (!fs::exists(run_lock_path))
        return;

    const Fd lock(::open(run_lock_path, O_RDWR | O_CLOEXEC));

    EXPECT_EQ(::flock(lock.get(), LOCK_EX | LOCK_NB), 0);
}

std::unique_ptr<Program> RefreshTest::start(std::vector<std::string> arguments)
{
    ProgramOptions options;

    options.argv = std::move(arguments);
    options.argv.insert(options.argv.begin(), "mail_responders_refresh");
    return std::make_unique<Program>(KOLMO_REFRESH_PROGRAM, options);
}

ProgramResult RefreshTest::refresh(std::vector<std::string> arguments)
{
    return start(std::move(arguments))->finish();
}

/* A tracer that is nobody's child leaves the refresh as this process's. */
std::unique_ptr<Program> RefreshTest::start_traced(std::vector<std::string> options,
                                                   const std::vector<std::string> &arguments)
{
    const std::vector<std::string> always = {"strace", "-D", "-qq", "-E", "LSAN_OPTIONS=detect_leaks=0"};
    ProgramOptions program;

    program.argv = always;
    program.argv.insert(program.argv.end(), options.begin(), options.end());
    program.argv.emplace_back(KOLMO_REFRESH_PROGRAM);
    program.argv.insert(program.argv.end(), arguments.begin(), arguments.end());
    return std::make_unique<Program>("/usr/bin/strace", program);
}

void RefreshTest::rebuild()
{
    ProgramOptions options;

    options.argv = {"mail_responders_rebuild"};
    EXPECT_EQ(Program(KOLMO_PROGRAM, options).finish().status, 0);
}

std::string rebuild_script(const std::string &commands)
{
    write_file(script_path, "#!/bin/sh\nrebuild=" KOLMO_PROGRAM "\n" + commands + "\n", 0755);
    return script_path;
}

void RefreshTest::expect_fresh()
{
    const Lines responders = responder_rows();
    const Lines handlers = handler_rows();

    rebuild();
    EXPECT_EQ(responders, responder_rows());
    EXPECT_EQ(handlers, handler_rows());
}

} // namespace kolmo::testing
