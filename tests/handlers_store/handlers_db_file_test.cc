#include "handlers_store/handlers_db.h"

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/handlers_store_fixture.h"
#include "tests/support/other_process_lock.h"

namespace kolmo::testing
{

namespace
{

namespace fs = std::filesystem;

/* handlers_db_path is changed by tests and set back at their end. */
class HandlersDbFile : public HandlersStoreTest
{
protected:
    HandlersDbFile() : saved_path(handlers_db_path) {}
    ~HandlersDbFile() override { handlers_db_set_path(saved_path); }

    const char *const saved_path;
};

TEST(HandlersDbPath, LeadsToTheMailServersStoreAtFirst)
{
    EXPECT_STREQ(handlers_db_path, "/var/lib/kolmo/mail/handlers/handlers.db");
}

TEST_F(HandlersDbFile, SetPathKeepsTheCallersPointer)
{
    const char path[] = "/some/where";

    handlers_db_set_path(path);
    EXPECT_EQ(handlers_db_path, path);
}

TEST_F(HandlersDbFile, PathIsReadAtEveryOpen)
{
    const HandlersStore other;

    handlers_db_set_path(store.path().c_str());
    store.add(handler("first", "a@d.test"));
    other.add(handler("second", "a@d.test"));
    EXPECT_EQ(handlers_db_remove_by_address(nullptr, "a@d.test"), 0);
    EXPECT_TRUE(store.rows().empty());
    handlers_db_path = other.path().c_str(); /* without the function: a variable like any other */
    EXPECT_EQ(other.rows().size(), 1U);
    EXPECT_EQ(handlers_db_remove_by_address(nullptr, "a@d.test"), 0);
    EXPECT_TRUE(other.rows().empty());
}

/* SQLite keeps the statements as they were written, so the schema can be compared byte for byte. */
TEST_F(HandlersDbFile, SchemaIsTheMailServers)
{
    EXPECT_EQ(
        store.query("SELECT sql FROM sqlite_master WHERE sql IS NOT NULL"),
        (Lines{"CREATE INDEX idx1 ON handlers(queue, type, enabled, address)",
               "CREATE INDEX idx2 ON handlers(queue, type, enabled, address, priority)",
               "CREATE INDEX idx3 ON handlers(name, queue, type, address)",
               "CREATE INDEX idx4 ON handlers(name, queue, type)",
               "CREATE TABLE handlers (queue INTEGER, type INTEGER, enabled BOOLEAN, priority INTEGER, "
               "name VARCHAR(255) NOT NULL, address VARCHAR(2048) NOT NULL, executable VARCHAR(2048) NOT "
               "NULL, context VARCHAR(2048) NOT NULL, protected BOOLEAN NOT NULL default 0, CONSTRAINT "
               "uniq_entries_constaraint PRIMARY KEY (queue, type, name, address))"}));
}

TEST_F(HandlersDbFile, CreateSchemaMakesTheFolders)
{
    const std::string path = store.folder().path("a/b/handlers.db");

    handlers_db_set_path(path.c_str());
    EXPECT_EQ(handlers_db_create_schema(), 0);
    EXPECT_TRUE(fs::is_regular_file(path));
}

TEST_F(HandlersDbFile, CreateSchemaFillsAnEmptyFile)
{
    store.remove();
    (void)store.folder().write("handlers.db", "");
    EXPECT_EQ(handlers_db_create_schema(), 0);
    EXPECT_TRUE(store.rows().empty());
}

TEST_F(HandlersDbFile, CreateSchemaOnAnExistingStoreIsReportedAndTouchesNoRow)
{
    store.add(handler("autoresponder", "a@d.test"));
    EXPECT_EQ(handlers_db_create_schema(), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to re-create mail handlers database: table handlers already exists");
    EXPECT_EQ(store.rows(), Lines{"2|1|1|10|autoresponder|a@d.test|/hook|none|0"});
}

TEST_F(HandlersDbFile, CreateOnAnExistingStoreIsReportedAndTouchesNeitherRowNorMode)
{
    const fs::perms before = fs::status(store.path()).permissions();

    store.add(handler("autoresponder", "a@d.test"));
    EXPECT_EQ(handlers_db_create(), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to re-create mail handlers database: table handlers already exists");
    EXPECT_EQ(store.rows(), Lines{"2|1|1|10|autoresponder|a@d.test|/hook|none|0"});
    EXPECT_EQ(fs::status(store.path()).permissions(), before);
}

TEST_F(HandlersDbFile, FileOnTheWayIsReportedTwiceWithTheReason)
{
    const std::string file = store.folder().write("file", "");
    const std::string path = file + "/a/handlers.db";

    handlers_db_set_path(path.c_str());
    EXPECT_EQ(handlers_db_create(), -1);
    EXPECT_EQ(log.take(), (Lines{"2 Unable to create directories for mail handlers database (" + file +
                                     "/a): Not a directory (20)",
                                 "2 Unable to create directory for mail handlers database for(" + path +
                                     "): Not a directory"}));
}

/*
 * What is repeated is the whole script: its own "BEGIN TRANSACTION;" of the attempt before is still open.  A
 * file that somebody has locked is no new store anyway.
 */
TEST_F(HandlersDbFile, CreateSchemaOnALockedFileFailsBecauseTheRepeatedScriptMeetsItsOwnTransaction)
{
    store.remove();
    {
        const OtherProcessLock lock(store.path(), -1);

        EXPECT_EQ(handlers_db_create_schema(), -1);
    }
    EXPECT_EQ(log.take_one(),
              "3 Unable to re-create mail handlers database: cannot start a transaction within "
              "a transaction");
    EXPECT_TRUE(store.query("SELECT name FROM sqlite_master").empty());
}

TEST_F(HandlersDbFile, StoreThatCannotBeOpenedIsReported)
{
    const std::string path = store.folder().path(); /* a folder */

    handlers_db_set_path(path.c_str());
    EXPECT_EQ(handlers_db_create_schema(), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to open database " + path + ": unable to open database file");
}

} // namespace

} // namespace kolmo::testing
