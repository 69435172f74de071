#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "handlers_store/handlers_db.h"
#include "tests/support/log_capture.h"
#include "tests/support/sandbox.h"
#include "tests/support/temp_dir.h"

namespace kolmo
{

namespace
{

using namespace testing;

namespace fs = std::filesystem;

/* The sandbox has the group; /etc and the store's folder are its own. */
class CreateInSandbox : public ::testing::Test
{
protected:
    CreateInSandbox() : saved_path(handlers_db_path), saved_umask(umask(022)) {}
    ~CreateInSandbox() override
    {
        handlers_db_set_path(saved_path);
        (void)umask(saved_umask);
    }

    /* Owner, group and mode of the file: "0 GID 640". */
    static std::string owner_and_mode(const std::string &path)
    {
        struct stat status = {};
        std::ostringstream text;

        EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
        text << status.st_uid << ' ' << status.st_gid << ' ' << std::oct << (status.st_mode & 07777);
        return text.str();
    }

    static std::string root_and_popuser()
    {
        const group *const popuser = getgrnam("popuser");

        EXPECT_NE(popuser, nullptr);
        return popuser != nullptr ? "0 " + std::to_string(popuser->gr_gid) : "";
    }

    const char *const saved_path;
    const mode_t saved_umask;
    LogCapture log;
    TempDir folder;
};

/* /etc/group as it is without the group. */
class WithoutPopuser
{
public:
    WithoutPopuser()
    {
        std::ifstream file("/etc/group");
        std::ostringstream others;
        std::string line;

        while (std::getline(file, line)) {
            saved_ += line + '\n';
            if (line.rfind("popuser:", 0) != 0)
                others << line << '\n';
        }
        write(others.str());
    }
    ~WithoutPopuser() { write(saved_); }
    WithoutPopuser(const WithoutPopuser &) = delete;
    WithoutPopuser &operator=(const WithoutPopuser &) = delete;

private:
    static void write(const std::string &text)
    {
        std::ofstream file("/etc/group", std::ios::trunc);

        file << text;
        file.close();
        EXPECT_TRUE(file.good());
    }

    std::string saved_;
};

TEST_F(CreateInSandbox, MakesFoldersAndFileWithOwnerGroupAndMode)
{
    ASSERT_TRUE(in_sandbox());
    const std::string path = folder.path("a/b/handlers.db");

    handlers_db_set_path(path.c_str());
    EXPECT_EQ(handlers_db_create(), 0);
    EXPECT_EQ(owner_and_mode(path), root_and_popuser() + " 640");
    EXPECT_EQ(owner_and_mode(folder.path("a")), "0 0 755");
    EXPECT_EQ(owner_and_mode(folder.path("a/b")), "0 0 755");
}

TEST_F(CreateInSandbox, UmaskDoesNotChangeTheFilesMode)
{
    ASSERT_TRUE(in_sandbox());
    const std::string path = folder.path("handlers.db");

    (void)umask(077);
    handlers_db_set_path(path.c_str());
    EXPECT_EQ(handlers_db_create(), 0);
    EXPECT_EQ(owner_and_mode(path), root_and_popuser() + " 640");
}

TEST_F(CreateInSandbox, MakesTheMailServersStoreWhereItBelongs)
{
    ASSERT_TRUE(in_sandbox());
    fs::remove_all("/var/lib/kolmo/mail/handlers");

    EXPECT_EQ(handlers_db_create(), 0);
    EXPECT_EQ(owner_and_mode("/var/lib/kolmo/mail/handlers/handlers.db"), root_and_popuser() + " 640");
}

TEST_F(CreateInSandbox, WithoutTheGroupTheFileIsRemovedAndTheFoldersStay)
{
    ASSERT_TRUE(in_sandbox());
    const WithoutPopuser no_group;
    const std::string path = folder.path("a/handlers.db");

    handlers_db_set_path(path.c_str());
    EXPECT_EQ(handlers_db_create(), -1);
    EXPECT_EQ(log.take_one(), "2 Unable to get mail handlers group uid: Success");
    EXPECT_FALSE(fs::exists(path));
    EXPECT_TRUE(fs::is_directory(folder.path("a")));
}

/* A process that creates the store as soon as `start` closes and, if it could, adds a handler called `name`.
 */
pid_t start_creator(const std::string &path, const char *name, const int (&start)[2])
{
    const pid_t pid = fork();
    HandlerRecord record;
    char byte;

    if (pid != 0)
        return pid;
    handlers_db_set_path(path.c_str());
    handler_record_init(&record);
    record.name = name;
    record.address = "jane@example.com";
    record.executable = "/bin/true";
    (void)close(start[1]);
    (void)!read(start[0], &byte, 1);
    if (handlers_db_create() != 0)
        _exit(1);
    _exit(handlers_db_insert_action(nullptr, &record) == 0 ? 0 : 2);
}

/* Which of two processes that create the store at once could: 1 the first, 2 the second, 3 both. */
int create_twice(const std::string &path)
{
    const char *const names[] = {"first", "second"};
    pid_t creators[2];
    int start[2];
    int created = 0;

    EXPECT_EQ(pipe(start), 0);
    for (int i = 0; i < 2; i++)
        creators[i] = start_creator(path, names[i], start);
    (void)close(start[0]);
    (void)close(start[1]);
    for (int i = 0; i < 2; i++) {
        int status = -1;

        EXPECT_EQ(waitpid(creators[i], &status, 0), creators[i]);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) < 2)
            << names[i] << " lost its store: " << status;
        created |= status == 0 ? 1 << i : 0;
    }
    return created;
}

TEST_F(CreateInSandbox, TwoProcessesAtOnceLeaveOneStoreWithWhatItsMakerWrote)
{
    ASSERT_TRUE(in_sandbox());

    for (int round = 0; round < 300; round++) {
        const std::string path = folder.path("handlers" + std::to_string(round) + ".db");
        const int created = create_twice(path);
        HandlerList list;

        handlers_db_set_path(path.c_str());
        ASSERT_TRUE(created == 1 || created == 2) << "round " << round << ": " << created;
        EXPECT_EQ(owner_and_mode(path), root_and_popuser() + " 640");
        (void)handler_list_init(&list);
        ASSERT_EQ(handlers_db_select_by_domain(nullptr, &list, "example.com"), 0) << "round " << round;
        ASSERT_NE(list.head, nullptr) << "round " << round;
        EXPECT_STREQ(list.head->record->name, created == 1 ? "first" : "second");
        EXPECT_EQ(list.head->next, nullptr);
        handler_list_free(&list);
    }
}

} // namespace

} // namespace kolmo
