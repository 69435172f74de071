#include <cerrno>
#include <cstdarg>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "common/log.h"
#include "handlers_store/handlers_db.h"
#include "handlers_store/sqlite_file.h"
#include "tests/handlers_store/file_faults.h"
#include "tests/support/alloc_faults.h"
#include "tests/support/handlers_store_fixture.h"

namespace kolmo::testing
{

namespace
{

/* Logs, and leaves an errno behind, as syslog may. */
[[gnu::format(printf, 2, 3)]] void log_and_spoil_errno(int priority, const char *format, ...)
{
    std::va_list arguments;

    va_start(arguments, format);
    log_vmessage(priority, format, arguments);
    va_end(arguments);
    errno = EXDEV;
}

/* A path at which no store is yet, and no errno of before. */
class CreateFaults : public HandlersStoreTest
{
protected:
    CreateFaults()
    {
        store.remove();
        errno = EXDEV;
        log_message = log_and_spoil_errno; /* LogCapture sets it back */
    }

    FileFaults faults;
};

class MakeDirsFaults : public ::testing::Test
{
protected:
    MakeDirsFaults() { log_message = log_and_spoil_errno; }

    /* The lines for a folder that cannot be made. */
    std::string failure(const std::string &reason) const
    {
        return "2 Unable to create directories for test store database (" + folder.path("a/b") +
               "): " + reason;
    }

    LogCapture log;
    TempDir folder;
    FileFaults faults;
    const std::string path = folder.path("a/b/file.db");
};

TEST_F(CreateFaults, GivesTheFileToRootAndPopuserAndThenSetsItsMode)
{
    EXPECT_EQ(handlers_db_create(), 0);
    EXPECT_EQ(faults.calls(), (Lines{"getgrnam popuser", "chown " + store.path() + " 0 4242",
                                     "chmod " + store.path() + " 0640"}));
    EXPECT_TRUE(store.rows().empty());
}

TEST_F(CreateFaults, EmptyFileIsMadeAStoreLikeAMissingOne)
{
    (void)store.folder().write("handlers.db", "");
    EXPECT_EQ(handlers_db_create(), 0);
    EXPECT_EQ(faults.calls().size(), 3U);
    store.remove();
    (void)store.folder().write("handlers.db", "");
    faults.fail("getgrnam", EIO);
    EXPECT_EQ(handlers_db_create(), -1);
    EXPECT_FALSE(log.take_one().empty());
    EXPECT_FALSE(store.exists());
}

TEST_F(CreateFaults, ScriptIsRunAsAWholeAndToTheLetter)
{
    EXPECT_EQ(handlers_db_create_schema(), 0);
    EXPECT_EQ(
        faults.script(),
        "BEGIN TRANSACTION;CREATE TABLE handlers (queue INTEGER, type INTEGER, enabled BOOLEAN, priority "
        "INTEGER, name VARCHAR(255) NOT NULL, address VARCHAR(2048) NOT NULL, executable VARCHAR(2048) NOT "
        "NULL, context VARCHAR(2048) NOT NULL, protected BOOLEAN NOT NULL default 0, CONSTRAINT "
        "uniq_entries_constaraint PRIMARY KEY (queue, type, name, address));CREATE INDEX idx1 ON "
        "handlers(queue, type, enabled, address);CREATE INDEX idx2 ON handlers(queue, type, enabled, "
        "address, priority);CREATE INDEX idx3 ON handlers(name, queue, type, address);CREATE INDEX idx4 ON "
        "handlers(name, queue, type);COMMIT;");
}

TEST_F(CreateFaults, AbsentGroupIsReportedAndTheFileRemoved)
{
    faults.fail("getgrnam", 0); /* that the group is absent is no error to getgrnam(3) */
    EXPECT_EQ(handlers_db_create(), -1);
    EXPECT_EQ(log.take_one(), "2 Unable to get mail handlers group uid: Success");
    EXPECT_EQ(faults.calls(), Lines{"getgrnam popuser"});
    EXPECT_FALSE(store.exists());
}

TEST_F(CreateFaults, FailedLookUpIsReportedWithItsReason)
{
    faults.fail("getgrnam", EIO);
    EXPECT_EQ(handlers_db_create(), -1);
    EXPECT_EQ(log.take_one(), "2 Unable to get mail handlers group uid: Input/output error");
    EXPECT_FALSE(store.exists());
}

TEST_F(CreateFaults, FailedChownIsReportedAndTheFileRemoved)
{
    faults.fail("chown", EPERM);
    EXPECT_EQ(handlers_db_create(), -1);
    EXPECT_EQ(log.take_one(), "2 Unable to set owner on " + store.path() + ": Operation not permitted");
    EXPECT_EQ(faults.calls().size(), 2U) << "the mode is of no interest any more";
    EXPECT_FALSE(store.exists());
}

TEST_F(CreateFaults, FailedChmodIsReportedAndTheFileRemoved)
{
    faults.fail("chmod", EROFS);
    EXPECT_EQ(handlers_db_create(), -1);
    EXPECT_EQ(log.take_one(), "2 Unable to set permissions on " + store.path() + ": Read-only file system");
    EXPECT_FALSE(store.exists());
}

TEST_F(CreateFaults, FailedScriptLeavesOwnerAndModeAlone)
{
    (void)store.folder().write("handlers.db", "this is no database, and it is long enough to be noticed");
    EXPECT_EQ(handlers_db_create(), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to re-create mail handlers database: file is not a database");
    EXPECT_TRUE(faults.calls().empty());
    EXPECT_TRUE(store.exists());
}

/* It may be another process's store by then. */
TEST_F(CreateFaults, FailedSchemaRemovesNothing)
{
    faults.fail("sqlite3_exec", 0);
    EXPECT_EQ(handlers_db_create(), -1);
    EXPECT_EQ(log.take().size(), 1U);
    EXPECT_EQ(faults.script().substr(0, 5), "BEGIN") << "the file has been opened";
    EXPECT_TRUE(store.exists());
}

TEST_F(CreateFaults, FailureWithoutATextIsReportedWithoutItsColon)
{
    faults.fail("sqlite3_exec", 0);
    EXPECT_EQ(handlers_db_create(), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to re-create mail handlers database");
}

TEST_F(CreateFaults, SetPermissionsWorksOnAnyPathAndRemovesNothing)
{
    const std::string other = store.folder().write("other", "");

    EXPECT_EQ(handlers_db_set_permissions(other.c_str()), 0);
    faults.fail("chown", EPERM);
    EXPECT_EQ(handlers_db_set_permissions(other.c_str()), -1);
    EXPECT_EQ(log.take_one(), "2 Unable to set owner on " + other + ": Operation not permitted");
    EXPECT_EQ(access(other.c_str(), F_OK), 0);
}

/* The second line has the reason of the first, whatever the first has done to errno. */
TEST_F(CreateFaults, FoldersThatCannotBeMadeAreReportedTwiceWithTheSameReason)
{
    const std::string path = store.folder().path("a/handlers.db");

    handlers_db_set_path(path.c_str());
    faults.fail("mkdir", EACCES);
    EXPECT_EQ(handlers_db_create(), -1);
    EXPECT_EQ(log.take(), (Lines{"2 Unable to create directories for mail handlers database (" +
                                     store.folder().path("a") + "): Permission denied (13)",
                                 "2 Unable to create directory for mail handlers database for(" + path +
                                     "): Permission denied"}));
}

TEST_F(CreateFaults, NoMemoryForThePathIsReportedTwice)
{
    int result = 0;
    {
        const AllocFaults memory(1);
        result = handlers_db_create();
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(log.take(), (Lines{"2 Memory allocation error",
                                 "2 Unable to create directory for mail handlers database for(" +
                                     store.path() + "): Cannot allocate memory"}));
    EXPECT_FALSE(store.exists());
}

TEST_F(MakeDirsFaults, FailedMkdirStopsAtItsFolder)
{
    faults.fail("mkdir", EACCES);
    EXPECT_EQ(make_dirs(folder.path("a/b").c_str()), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(faults.calls(), Lines{"mkdir " + folder.path("a") + " 0755"});
}

TEST_F(MakeDirsFaults, FailedStatStopsBeforeAnythingIsMade)
{
    faults.fail("stat", EACCES);
    EXPECT_EQ(make_dirs(folder.path("a/b").c_str()), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_TRUE(faults.calls().empty());
}

TEST_F(MakeDirsFaults, NoMemoryIsENOMEM)
{
    errno = 0;
    {
        const AllocFaults memory(1);
        EXPECT_EQ(make_dirs(folder.path("a/b").c_str()), -1);
    }
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_TRUE(faults.calls().empty());
}

TEST_F(MakeDirsFaults, ParentsFailedMkdirIsReportedAndErrnoKept)
{
    faults.fail("mkdir", EACCES);
    EXPECT_EQ(db_make_parent_dirs(path.c_str(), "test store"), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(log.take_one(), failure("Permission denied (13)"));
}

TEST_F(MakeDirsFaults, ParentsFailedStatIsReportedAndErrnoKept)
{
    faults.fail("stat", EIO);
    EXPECT_EQ(db_make_parent_dirs(path.c_str(), "test store"), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(log.take_one(), failure("Input/output error (5)"));
}

TEST_F(MakeDirsFaults, ParentsMemoryForThePrefixesIsReportedAndErrnoKept)
{
    int result = 0;
    {
        const AllocFaults memory(2); /* the first is the path's copy */
        result = db_make_parent_dirs(path.c_str(), "test store");
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(log.take_one(), failure("Cannot allocate memory (12)"));
}

TEST_F(MakeDirsFaults, ParentsMemoryForThePathIsReportedAndErrnoKept)
{
    int result = 0;
    {
        const AllocFaults memory(1);
        result = db_make_parent_dirs(path.c_str(), "test store");
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(log.take_one(), "2 Memory allocation error");
}

TEST_F(MakeDirsFaults, FailedDirnameIsReportedWithThePathAndErrnoKept)
{
    faults.fail("dirname", EINVAL);
    EXPECT_EQ(db_make_parent_dirs(path.c_str(), "test store"), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(log.take_one(),
              "2 Unable to get dirname for test store database (" + path + "): Invalid argument (22)");
    EXPECT_TRUE(faults.calls().empty());
}

} // namespace

} // namespace kolmo::testing
