#include "responder_store/responder_db.h"

#include <string>

#include <gtest/gtest.h>

#include "tests/responder_store/responder_operations.h"
#include "tests/support/responder_store_fixture.h"

namespace kolmo::testing
{

namespace
{

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

TEST_F(AddAttachments, SameNameTwiceGivesTwoRowsWhereNoKeyForbidsIt)
{
    const char *const files[] = {"a", "a"};

    store.execute("DROP TABLE attachments; CREATE TABLE attachments (mn, filename)");
    EXPECT_EQ(responder_db_add_attachments(&connection, "box", "example.com", files, 2), 0);
    EXPECT_EQ(store.rows("attachments"), (Lines{"box@example.com|a", "box@example.com|a"}));
}

TEST_F(AddAttachments, EachRefusedFileIsReported)
{
    store.execute("CREATE TRIGGER refuse BEFORE INSERT ON attachments BEGIN SELECT RAISE(FAIL, 'no'); END");
    EXPECT_EQ(add_attachments(&connection), 0);
    EXPECT_EQ(log.take(), Lines(2, "3 Unable to add autoresponder attachment (box@example.com): no"));
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

} // namespace

} // namespace kolmo::testing
