/* A look at how far a rebuild is hinders nobody, and is hindered by nobody. */
#include "refresh/rebuild_progress.h"

#include <string>

#include <gtest/gtest.h>

#include "tests/refresh/held_transaction.h"
#include "tests/support/store_file.h"
#include "tests/support/temp_dir.h"

namespace kolmo
{

namespace
{

using namespace testing;

void make_store(const std::string &path)
{
    sqlite3 *db = nullptr;

    ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    (void)result_rows(db, "CREATE TABLE autoresponder (mn); INSERT INTO autoresponder VALUES ('a'), ('b')");
    EXPECT_EQ(sqlite3_close(db), SQLITE_OK);
}

TEST(CountRepliesUnlocked, CountsWhatIsCommittedBesideAWriterThatKeepsEverybodyOut)
{
    const TempDir folder;
    const std::string path = folder.path("with ?, # and %41.db");

    make_store(path);

    const HeldTransaction writer(path, "BEGIN EXCLUSIVE; INSERT INTO autoresponder VALUES ('c')");

    EXPECT_EQ(count_replies_unlocked(path), 2U);
}

TEST(CountRepliesUnlocked, WhatCannotBeToldIsNothing)
{
    const TempDir folder;

    EXPECT_EQ(count_replies_unlocked(folder.path("none.db")), 0U);
    EXPECT_EQ(count_replies_unlocked(folder.write("empty.db", "")), 0U);
    EXPECT_EQ(count_replies_unlocked(folder.write("garbage.db", std::string(9000, 'x'))), 0U);
}

} // namespace

} // namespace kolmo
