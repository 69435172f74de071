#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

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

} // namespace

} // namespace kolmo
