#include "responder_store/responder_db.h"

#include <string>

#include <gtest/gtest.h>

#include "tests/responder_store/responder_operations.h"
#include "tests/responder_store/transaction_sweep.h"
#include "tests/support/alloc_faults.h"
#include "tests/support/responder_store_fixture.h"
#include "tests/support/sqlite_faults.h"
#include "tests/support/store_sweep.h"

namespace kolmo
{

namespace
{

using namespace testing;

const char replace_sql[] = "REPLACE INTO attachments VALUES (?, ?  );";
const char delete_sql[] = "DELETE FROM attachments WHERE mn = ?;";

class AttachmentsTest : public ResponderStoreTest
{
protected:
    StoreConnection connection = store.open();
};

using AddAttachments = AttachmentsTest;
using RemoveAttachments = AttachmentsTest;

TEST_F(AddAttachments, FilesAreStoredInOrderUnderTheLowerCasedMailname)
{
    EXPECT_EQ(add_attachments(&connection), 0);
    EXPECT_EQ(store.rows("attachments"), (Lines{"box@example.com|one.txt", "box@example.com|Two.txt"}));
}

TEST_F(AddAttachments, MailnameIsTheOneOfTheAutoresponder)
{
    ASSERT_EQ(add_autoresponder(&connection), 0);
    ASSERT_EQ(add_attachments(&connection), 0);
    EXPECT_EQ(store.query("SELECT filename FROM autoresponder JOIN attachments USING (mn)"),
              (Lines{"one.txt", "Two.txt"}));
}

TEST_F(AddAttachments, NamesAreStoredUnchanged)
{
    const char *const files[] = {"100% 'it'.PDF", "", "\xc3\x84/b"};

    EXPECT_EQ(responder_db_add_attachments(&connection, "box", "example.com", files, 3), 0);
    EXPECT_EQ(store.query("SELECT filename FROM attachments ORDER BY rowid"),
              (Lines{"100% 'it'.PDF", "", "\xc3\x84/b"}));
}

TEST_F(AddAttachments, SameNameTwiceIsReplacedTwice)
{
    const char *const files[] = {"a", "a"};
    const SqliteFaults faults;

    EXPECT_EQ(responder_db_add_attachments(&connection, "box", "example.com", files, 2), 0);
    EXPECT_EQ(faults.count(std::string("prepare ") + replace_sql), 2);
    EXPECT_EQ(store.rows("attachments"), Lines{"box@example.com|a"});
}

TEST_F(AddAttachments, SameNameTwiceGivesTwoRowsWhereNoKeyForbidsIt)
{
    const char *const files[] = {"a", "a"};

    store.execute("DROP TABLE attachments; CREATE TABLE attachments (mn, filename)");
    EXPECT_EQ(responder_db_add_attachments(&connection, "box", "example.com", files, 2), 0);
    EXPECT_EQ(store.rows("attachments"), (Lines{"box@example.com|a", "box@example.com|a"}));
}

TEST_F(AddAttachments, CountOfZeroTouchesNothing)
{
    const SqliteFaults faults;

    EXPECT_EQ(responder_db_add_attachments(&connection, "box", "example.com", nullptr, 0), 0);
    EXPECT_TRUE(faults.calls().empty());
}

TEST_F(AddAttachments, CountOfZeroOpensAndClosesAConnectionOfItsOwn)
{
    const SqliteFaults faults;

    EXPECT_EQ(responder_db_add_attachments(nullptr, "box", "example.com", nullptr, 0), 0);
    EXPECT_EQ(faults.calls(), (Lines{"open " + store.path(), "busy_timeout 50", "close"}));
}

/* A name that is formed takes an allocation. */
TEST_F(AddAttachments, CountOfZeroFormsNoMailname)
{
    const AllocFaults counter(0);

    EXPECT_EQ(responder_db_add_attachments(&connection, "box", "example.com", nullptr, 0), 0);
    EXPECT_EQ(counter.calls(), 0);
}

TEST_F(AddAttachments, MailnameIsFormedAfterTheTransactionHasBegun)
{
    int names = -1;

    ASSERT_EQ(sqlite3_exec(connection.get(), "BEGIN", nullptr, nullptr, nullptr), SQLITE_OK);
    {
        const AllocFaults counter(0);
        (void)add_attachments(&connection);
        names = counter.calls();
    }
    EXPECT_EQ(names, 0);
    EXPECT_EQ(log.take_one(), "3 Unable to begin sqlite transaction: "
                              "cannot start a transaction within a transaction");
}

TEST_F(AddAttachments, NegativeCountIsAnEmptyTransaction)
{
    const SqliteFaults faults;

    EXPECT_EQ(responder_db_add_attachments(&connection, "box", "example.com", nullptr, -1), 0);
    EXPECT_EQ(faults.calls(), (Lines{"prepare BEGIN TRANSACTION;", "step", "finalize",
                                     "prepare END TRANSACTION;", "step", "finalize"}));
}

TEST_F(AddAttachments, RefusedFileIsReportedAndTheRestIsWritten)
{
    const char *const files[] = {"a", "b", "c"};

    store.execute("CREATE TRIGGER refuse BEFORE INSERT ON attachments "
                  "WHEN NEW.filename = 'b' BEGIN SELECT RAISE(ABORT, 'no'); END");
    EXPECT_EQ(responder_db_add_attachments(&connection, "Box", "example.com", files, 3), 0);
    EXPECT_EQ(log.take_one(), "3 Unable to add autoresponder attachment (box@example.com): no");
    EXPECT_EQ(store.rows("attachments"), (Lines{"box@example.com|a", "box@example.com|c"}));
    EXPECT_TRUE(connection.is_open());
}

TEST_F(AddAttachments, EachRefusedFileIsReported)
{
    store.execute("CREATE TRIGGER refuse BEFORE INSERT ON attachments BEGIN SELECT RAISE(FAIL, 'no'); END");
    EXPECT_EQ(add_attachments(&connection), 0);
    EXPECT_EQ(log.take(), Lines(2, "3 Unable to add autoresponder attachment (box@example.com): no"));
}

TEST_F(AddAttachments, RefusalThatRollsBackMakesTheEndFail)
{
    store.execute("CREATE TRIGGER refuse BEFORE INSERT ON attachments "
                  "WHEN NEW.filename = 'Two.txt' BEGIN SELECT RAISE(ROLLBACK, 'no'); END");
    EXPECT_EQ(add_attachments(&connection), -1);
    EXPECT_EQ(log.take(),
              (Lines{"3 Unable to add autoresponder attachment (box@example.com): no",
                     "3 Unable to end sqlite transaction: cannot commit - no transaction is active"}));
    EXPECT_FALSE(connection.is_open());
    EXPECT_TRUE(store.rows().empty());
}

TEST_F(AddAttachments, MakesTheseCallsInThisOrder)
{
    const SqliteFaults faults;
    const std::string prepare = std::string("prepare ") + replace_sql;

    EXPECT_EQ(add_attachments(&connection), 0);
    EXPECT_EQ(faults.calls(),
              (Lines{"prepare BEGIN TRANSACTION;", "step", "finalize",                            //
                     prepare, "bind 1 'box@example.com'", "bind 2 'one.txt'", "step", "finalize", //
                     prepare, "bind 1 'box@example.com'", "bind 2 'Two.txt'", "step", "finalize", //
                     "prepare END TRANSACTION;", "step", "finalize"}));
}

TEST(AddAttachmentsSweep, EveryCallFailsInItsOwnWay)
{
    const Lines written = {"attachments: box@example.com|one.txt", "attachments: box@example.com|Two.txt"};
    const std::string refused = "Unable to add autoresponder attachment (box@example.com): ";

    sweep_transaction(StoreSweep(add_attachments, written),
                      {{replace_sql,
                        {{"mailname", "'box@example.com'"}, {"filename", "'one.txt'"}},
                        {"step", refused, 0, Left::open, {written[1]}}},
                       {replace_sql,
                        {{"mailname", "'box@example.com'"}, {"filename", "'Two.txt'"}},
                        {"step", refused, 0, Left::open, {written[0]}}}},
                      {}, written);
}

TEST_F(RemoveAttachments, AllFilesOfTheMailboxGoAndAllElseStays)
{
    store.execute(other_rows);
    store.execute(rows_of_box);
    ASSERT_EQ(add_attachments(&connection), 0);
    EXPECT_EQ(responder_db_remove_attachments(&connection, "BOX", "Example.COM"), 0);
    EXPECT_EQ(store.rows("attachments"), Lines{"other@example.com|stays"});
    EXPECT_EQ(store.query("SELECT mn FROM autoresponder ORDER BY rowid"),
              (Lines{"other@example.com", "box@example.com"}));
    EXPECT_EQ(store.rows("extra_headers"), Lines{"X-Old|old"});
}

TEST_F(RemoveAttachments, MailboxWithoutFilesIsNoFailure)
{
    store.execute(other_rows);
    EXPECT_EQ(remove_attachments(&connection), 0);
    EXPECT_EQ(store.rows("attachments"), Lines{"other@example.com|stays"});
}

TEST_F(RemoveAttachments, MailnameIsFormedBeforeAnythingTouchesTheStore)
{
    responder_db_path = "/nonexistent/responder.db";
    EXPECT_EXIT((void)without_memory(1, [] { return remove_attachments(nullptr); }),
                ::testing::ExitedWithCode(1), no_memory_for_a_name);
}

TEST_F(RemoveAttachments, RefusedDeletionIsCalledAnAdditionAndIsNoFailure)
{
    store.execute(rows_of_box);
    store.execute("CREATE TRIGGER refuse BEFORE DELETE ON attachments BEGIN SELECT RAISE(FAIL, 'no'); END");
    EXPECT_EQ(remove_attachments(&connection), 0);
    EXPECT_EQ(log.take_one(), "3 Unable to add autoresponder attachment (box@example.com): no");
    EXPECT_TRUE(connection.is_open());
    EXPECT_FALSE(in_transaction(connection));
    EXPECT_EQ(store.rows("attachments"), Lines{"box@example.com|old"});
}

TEST(RemoveAttachmentsSweep, EveryCallFailsInItsOwnWay)
{
    const Lines old = {"attachments: box@example.com|old"};
    const StoreSweep sweep(remove_attachments, {}, [](const ResponderStore &store) {
        store.execute("INSERT INTO attachments VALUES ('box@example.com', 'old')");
    });
    const std::string refused = "Unable to add autoresponder attachment (box@example.com): ";

    sweep_transaction(
        sweep, {{delete_sql, {{"mailname", "'box@example.com'"}}, {"step", refused, 0, Left::open, old}}},
        old, {});
}

} // namespace

} // namespace kolmo
