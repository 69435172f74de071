#include "handlers_store/sqlite_file.h"

#include <cerrno>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/handlers_store_fixture.h"
#include "tests/support/other_process_lock.h"

namespace kolmo::testing
{

namespace
{

namespace fs = std::filesystem;

/* The permission bits of a file or folder, -1 when there is none. */
int mode_of(const std::string &path)
{
    struct stat status;

    return stat(path.c_str(), &status) == 0 ? static_cast<int>(status.st_mode & 07777) : -1;
}

/* A folder of the test's own, a umask that leaves 0755 as it is, and errno set to nothing that is expected.
 */
class Folders : public ::testing::Test
{
protected:
    Folders() : saved_umask(umask(022)) { errno = EXDEV; }
    ~Folders() override { (void)umask(saved_umask); }

    LogCapture log;
    TempDir folder;
    const mode_t saved_umask;
};

using MakeDirs = Folders;
using DbMakeParentDirs = Folders;

/* A file that is not there yet. */
class SqliteDbRecreate : public HandlersStoreTest
{
protected:
    SqliteDbRecreate() { store.remove(); }

    int recreate(const char *script) const
    {
        return sqlite_db_recreate(store.path().c_str(), script, "test store");
    }
};

TEST_F(MakeDirs, MissingFoldersAreMadeWithMode0755)
{
    EXPECT_EQ(make_dirs(folder.path("a/b/c").c_str()), 0);
    EXPECT_EQ(mode_of(folder.path("a")), 0755);
    EXPECT_EQ(mode_of(folder.path("a/b")), 0755);
    EXPECT_EQ(mode_of(folder.path("a/b/c")), 0755);
}

TEST_F(MakeDirs, UmaskTakesBitsAway)
{
    (void)umask(027);
    EXPECT_EQ(make_dirs(folder.path("a").c_str()), 0);
    EXPECT_EQ(mode_of(folder.path("a")), 0750);
}

TEST_F(MakeDirs, ExistingFoldersAreLeftAsTheyAre)
{
    ASSERT_EQ(mkdir(folder.path("a").c_str(), 0700), 0);
    EXPECT_EQ(make_dirs(folder.path("a/b").c_str()), 0);
    EXPECT_EQ(mode_of(folder.path("a")), 0700);
    EXPECT_EQ(mode_of(folder.path("a/b")), 0755);
}

TEST_F(MakeDirs, DoubleAndTrailingSlashesAddNothing)
{
    EXPECT_EQ(make_dirs((folder.path() + "//a///b//").c_str()), 0);
    EXPECT_TRUE(fs::is_directory(folder.path("a/b")));
    EXPECT_EQ(std::distance(fs::recursive_directory_iterator(folder.path()), {}), 2);
}

TEST_F(MakeDirs, RootAndEmptyPathAreThere)
{
    EXPECT_EQ(make_dirs("/"), 0);
    EXPECT_EQ(make_dirs("///"), 0);
    EXPECT_EQ(make_dirs(""), 0);
}

TEST_F(MakeDirs, LinkToAFolderIsAFolder)
{
    ASSERT_EQ(mkdir(folder.path("a").c_str(), 0755), 0);
    ASSERT_EQ(symlink("a", folder.path("link").c_str()), 0);
    EXPECT_EQ(make_dirs(folder.path("link/b").c_str()), 0);
    EXPECT_TRUE(fs::is_directory(folder.path("a/b")));
}

TEST_F(MakeDirs, RelativePathStartsInTheCurrentFolder)
{
    const fs::path saved = fs::current_path();

    fs::current_path(folder.path());
    EXPECT_EQ(make_dirs("a/b"), 0);
    fs::current_path(saved);
    EXPECT_TRUE(fs::is_directory(folder.path("a/b")));
}

TEST_F(MakeDirs, FileOnTheWayIsENOTDIR)
{
    (void)folder.write("file", "");
    EXPECT_EQ(make_dirs(folder.path("file/a").c_str()), -1);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(MakeDirs, FileAtTheEndIsENOTDIR)
{
    (void)folder.write("file", "");
    EXPECT_EQ(make_dirs(folder.path("file").c_str()), -1);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(MakeDirs, LinkToNowhereIsNoFolder)
{
    ASSERT_EQ(symlink("nowhere", folder.path("link").c_str()), 0);
    EXPECT_EQ(make_dirs(folder.path("link").c_str()), -1);
    EXPECT_EQ(errno, EEXIST);
}

TEST_F(MakeDirs, FoldersMadeBeforeAFailureStay)
{
    const std::string too_long(300, 'x');

    EXPECT_EQ(make_dirs(folder.path("a/" + too_long).c_str()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_TRUE(fs::is_directory(folder.path("a")));
}

TEST_F(DbMakeParentDirs, MakesTheFoldersButNotTheFile)
{
    EXPECT_EQ(db_make_parent_dirs(folder.path("a/b/file.db").c_str(), "test store"), 0);
    EXPECT_TRUE(fs::is_directory(folder.path("a/b")));
    EXPECT_FALSE(fs::exists(folder.path("a/b/file.db")));
}

/* dirname(3) cuts what it is given. */
TEST_F(DbMakeParentDirs, CallersPathIsNotChanged)
{
    const std::string path = folder.path("a/b/file.db");
    const std::string copy = path.c_str();

    EXPECT_EQ(db_make_parent_dirs(path.c_str(), "test store"), 0);
    EXPECT_EQ(path, copy);
}

TEST_F(DbMakeParentDirs, BareFileNameNeedsNoFolder)
{
    EXPECT_EQ(db_make_parent_dirs("file.db", "test store"), 0);
}

TEST_F(DbMakeParentDirs, FileOnTheWayIsReportedWithTheFolderAndENOTDIR)
{
    const std::string file = folder.write("file", "");

    EXPECT_EQ(db_make_parent_dirs((file + "/a/file.db").c_str(), "test store"), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(log.take_one(), "2 Unable to create directories for test store database (" + file +
                                  "/a): Not a directory (20)");
}

TEST_F(SqliteDbRecreate, RunsTheScriptOnAMissingFile)
{
    EXPECT_EQ(recreate("CREATE TABLE t (x); INSERT INTO t VALUES (1); INSERT INTO t VALUES (2);"), 0);
    EXPECT_EQ(store.query("SELECT x FROM t"), (Lines{"1", "2"}));
}

TEST_F(SqliteDbRecreate, RunsTheScriptOnAnEmptyFile)
{
    (void)store.folder().write("handlers.db", "");
    EXPECT_EQ(recreate("CREATE TABLE t (x);"), 0);
    EXPECT_EQ(store.query("SELECT count(*) FROM t"), Lines{"0"});
}

TEST_F(SqliteDbRecreate, FailingScriptIsReportedWithLabelAndText)
{
    EXPECT_EQ(recreate("CREATE TABLE t (x); CREATE TABLE t (x);"), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to re-create test store database: table t already exists");
}

TEST_F(SqliteDbRecreate, ScriptThatNeverCommitsLeavesTheFileAsItWas)
{
    store.execute("CREATE TABLE old (x);");
    EXPECT_EQ(recreate("BEGIN TRANSACTION; CREATE TABLE t (x); CREATE TABLE old (x); COMMIT;"), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to re-create test store database: table old already exists");
    EXPECT_EQ(store.query("SELECT name FROM sqlite_master"), Lines{"old"});
}

TEST_F(SqliteDbRecreate, FileThatCannotBeOpenedIsReportedWithThePath)
{
    const std::string path = store.folder().path("missing/handlers.db");

    EXPECT_EQ(sqlite_db_recreate(path.c_str(), "CREATE TABLE t (x);", "test store"), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to open database " + path + ": unable to open database file");
}

TEST_F(SqliteDbRecreate, WaitsForAnotherProcess)
{
    const OtherProcessLock lock(store.path(), 300);

    EXPECT_EQ(recreate("CREATE TABLE t (x);"), 0);
    EXPECT_EQ(store.query("SELECT count(*) FROM t"), Lines{"0"});
}

} // namespace

} // namespace kolmo::testing
