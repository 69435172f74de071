/* Live stores on a file system that is full or read-only: in the sandbox, whose mounts are its own. */
#include <filesystem>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <sys/mount.h>

#include "tests/refresh/publisher_world.h"

namespace kolmo
{

namespace
{

using namespace testing;

/* A world whose live stores lie on a file system of 256 KiB. */
class FileSystemTest : public PublisherTest
{
protected:
    FileSystemTest()
    {
        const std::string live = world.folder.path("live");
        const std::string aside = world.folder.path("aside");

        std::filesystem::rename(live, aside);
        std::filesystem::create_directory(live);
        EXPECT_EQ(::mount("none", live.c_str(), "tmpfs", 0, "size=256k"), 0);
        std::filesystem::copy(aside, live, std::filesystem::copy_options::recursive);
        (void)world.run(world.paths.live_responder, sql_reply("a@x.test", "A"));
    }
    ~FileSystemTest() override { EXPECT_EQ(::umount(world.folder.path("live").c_str()), 0); }

    void make_read_only() const
    {
        EXPECT_EQ(
            ::mount("none", world.folder.path("live").c_str(), nullptr, MS_REMOUNT | MS_RDONLY, "size=256k"),
            0);
    }

    [[nodiscard]] Lines addresses() const
    {
        return world.run(world.paths.live_responder, "SELECT mn FROM autoresponder ORDER BY mn");
    }
};

const char much[] = "INSERT INTO autoresponder (mn, body) VALUES ('b@x.test', printf('%.*c', 300000, 'x'));";

TEST_F(FileSystemTest, RowsForWhichThereIsNoSpaceAreTroubleAndNothingIsWritten)
{
    (void)world.run(world.paths.staged_responder, much);

    const Published published =
        world.publish([&] { (void)world.run(world.paths.staged_handlers, sql_handler("b@x.test")); });

    EXPECT_EQ(published.result, PublishResult::failed);
    ASSERT_EQ(published.troubles.size(), 1U);
    EXPECT_NE(published.troubles[0].find("database or disk is full"), std::string::npos)
        << published.troubles[0];
    EXPECT_EQ(addresses(), Lines{"a@x.test"});
    EXPECT_EQ(world.run(world.paths.live_handlers, "SELECT count(*) FROM handlers"), Lines{"0"});
    EXPECT_EQ(world.files(), (Lines{"handlers.db", "responder.db"}));
}

TEST_F(FileSystemTest, FileForWhichThereIsNoSpaceIsTroubleAndTheOldOneStays)
{
    (void)world.run(world.paths.staged_responder, much);
    (void)world.run(world.paths.live_responder, "PRAGMA user_version = 7");

    const Published published =
        world.publish([&] { (void)world.run(world.paths.staged_handlers, sql_handler("b@x.test")); });

    EXPECT_EQ(published.result, PublishResult::failed);
    EXPECT_EQ(published.troubles,
              Lines{world.paths.live_responder + "-refresh cannot be written: No space left on device"});
    EXPECT_EQ(addresses(), Lines{"a@x.test"});
    EXPECT_EQ(world.run(world.paths.live_handlers, "SELECT count(*) FROM handlers"), Lines{"0"});
    EXPECT_EQ(world.files(), (Lines{"handlers.db", "responder.db"}));
}

/* SQLite tries to read what it cannot create, and would say that there is no such file. */
TEST_F(FileSystemTest, JournalThatCannotBeMadeIsNotSaidToBeMissing)
{
    const std::string live = world.folder.path("live");

    (void)world.run(world.paths.staged_responder, sql_reply("b@x.test", "B"));

    const Published published = world.publish({}, {}, [&] {
        EXPECT_EQ(::mount("none", live.c_str(), nullptr, MS_REMOUNT, "size=256k,nr_inodes=3"), 0);
    });

    EXPECT_EQ(published.result, PublishResult::failed);
    EXPECT_EQ(published.troubles,
              Lines{world.paths.live_responder + " cannot be written: unable to open database file"});
    EXPECT_EQ(addresses(), Lines{"a@x.test"});
}

TEST_F(FileSystemTest, ReadOnlyStoreIsTroubleAtOnce)
{
    Published published;

    make_read_only();
    EXPECT_EQ(world.publisher(&published)->open_live(), -1);
    EXPECT_EQ(published.troubles, Lines{world.paths.live_handlers +
                                        " cannot be written: the file or its file system is read-only"});
}

} // namespace

} // namespace kolmo
