/* What stands in the way of publishing, before it and under the lock. */
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <poll.h>
#include <sqlite3.h>

#include "tests/refresh/held_transaction.h"
#include "tests/refresh/publisher_world.h"
#include "tests/support/killed_writer.h"
#include "tests/support/other_process_lock.h"

namespace kolmo
{

namespace
{

using namespace testing;

using Deed = std::function<void(const PublisherWorld &)>;

struct RefusalRow {
    const char *what;
    Deed spoil;
    std::function<std::string(const PublishPaths &)> trouble;
};

const std::vector<RefusalRow> refusal_rows = {
    {"no handlers store",
     [](const PublisherWorld &world) { std::filesystem::remove(world.paths.live_handlers); },
     [](const PublishPaths &paths) {
         return paths.live_handlers + " cannot be read: No such file or directory";
     }},
    {"an empty one",
     [](const PublisherWorld &world) { std::filesystem::resize_file(world.paths.live_handlers, 0); },
     [](const PublishPaths &paths) {
         return paths.live_handlers + " is empty: it has no tables";
     }},
    {"garbage for one",
     [](const PublisherWorld &world) { std::ofstream(world.paths.live_handlers) << std::string(5000, 'x'); },
     [](const PublishPaths &paths) {
         return paths.live_handlers + " is no database";
     }},
    {"the beginning of one",
     [](const PublisherWorld &world) { std::filesystem::resize_file(world.paths.live_handlers, 100); },
     [](const PublishPaths &paths) {
         return paths.live_handlers + " is no database, or is damaged";
     }},
    {"a folder for one",
     [](const PublisherWorld &world) {
         std::filesystem::remove(world.paths.live_handlers);
         std::filesystem::create_directory(world.paths.live_handlers);
     },
     [](const PublishPaths &paths) {
         return paths.live_handlers + " is no file";
     }},
    {"handlers in WAL mode",
     [](const PublisherWorld &world) {
         (void)world.run(world.paths.live_handlers, "PRAGMA journal_mode = WAL");
     },
     [](const PublishPaths &paths) {
         return paths.live_handlers +
                " is in WAL mode, in which a commit over both stores is not one: sqlite3 " +
                paths.live_handlers + " 'PRAGMA journal_mode = DELETE'";
     }},
    {"replies in WAL mode",
     [](const PublisherWorld &world) {
         (void)world.run(world.paths.live_responder, "PRAGMA journal_mode = WAL");
     },
     [](const PublishPaths &paths) {
         return paths.live_responder +
                " is in WAL mode, in which a commit over both stores is not one: sqlite3 " +
                paths.live_responder + " 'PRAGMA journal_mode = DELETE'";
     }},
    {"a folder for the replies",
     [](const PublisherWorld &world) {
         std::filesystem::remove(world.paths.live_responder);
         std::filesystem::create_directory(world.paths.live_responder);
     },
     [](const PublishPaths &paths) {
         return paths.live_responder + " is no file";
     }},
};

TEST(PublisherOpen, StoresThatCannotBePublishedToAreTroubleAtOnce)
{
    for (const RefusalRow &row : refusal_rows) {
        const PublisherWorld world;
        Published published;

        SCOPED_TRACE(row.what);
        row.spoil(world);
        EXPECT_EQ(world.publisher(&published)->open_live(), -1);
        EXPECT_EQ(published.troubles, Lines{row.trouble(world.paths)});
        EXPECT_EQ(published.notes, Lines{});
    }
}

/* Before a rebuild works on a copy: a row that the index has lost could not be written. */
TEST(PublisherOpen, HandlersWithADamagedIndexAreTrouble)
{
    const PublisherWorld world;
    Published published;
    const std::unique_ptr<Publisher> publisher = world.publisher(&published);

    (void)world.run(world.paths.live_handlers, sql_handler("a@x.test"));
    world.empty_index(world.paths.live_handlers, "idx1", "queue, type, enabled, address, row");
    ASSERT_EQ(publisher->open_live(), 0);
    EXPECT_EQ(publisher->copy_handlers(), -1);
    ASSERT_EQ(published.troubles.size(), 1U);
    EXPECT_TRUE(published.troubles[0].starts_with(world.paths.live_handlers +
                                                  " is damaged (PRAGMA integrity_check): "))
        << published.troubles[0];
    (void)world.run(world.paths.live_handlers, "REINDEX");
    EXPECT_EQ(world.publish().result, PublishResult::published);
}

TEST(PublisherOpen, JournalOfAKilledWriterIsRolledBackAndTold)
{
    for (const bool is_responder : {true, false}) {
        const PublisherWorld world;
        const std::string path = is_responder ? world.paths.live_responder : world.paths.live_handlers;

        (void)world.run(world.paths.live_responder, sql_reply("a@x.test", "A"));
        (void)world.run(world.paths.live_handlers, sql_handler("a@x.test"));
        (void)world.run(world.paths.staged_responder, sql_reply("a@x.test", "B"));
        kill_writer(path, is_responder ? "DELETE FROM autoresponder" : "DELETE FROM handlers");

        const Published published =
            world.publish([&] { (void)world.run(world.paths.staged_handlers, sql_handler("b@x.test")); });

        EXPECT_EQ(published.result, PublishResult::published);
        EXPECT_EQ(
            published.notes,
            Lines{path + ": a writer had been killed in the middle of a commit; what it left was tidied up"});
        EXPECT_EQ(published.troubles, Lines{});
        EXPECT_EQ(published.changes, (Lines{"changed autoresponder a@x.test", "added handlers b@x.test"}));
        EXPECT_EQ(world.run(world.paths.live_handlers, "SELECT address FROM handlers ORDER BY 1"),
                  (Lines{"a@x.test", "b@x.test"}));
        EXPECT_EQ(world.files(), (Lines{"handlers.db", "responder.db"}));
    }
}

/* The journal of one who is writing is nobody's remains, not even with old pages in it. */
TEST(PublisherOpen, JournalOfAWriterAtWorkIsNoneToTellOf)
{
    const PublisherWorld world;
    const auto take_time = [] {
        return ::poll(nullptr, 0, 200) == 0;
    };
    const HeldTransaction writer(world.paths.live_handlers,
                                 "PRAGMA cache_size = 1; BEGIN; CREATE TABLE more (x); WITH RECURSIVE n(i) "
                                 "AS (SELECT 1 UNION ALL SELECT i + 1 "
                                 "FROM n WHERE i < 200) INSERT INTO more SELECT zeroblob(2000) FROM n;",
                                 take_time);
    Published published;

    EXPECT_EQ(world.publisher(&published)->open_live(), 0);
    EXPECT_EQ(published.notes, Lines{});
}

/* The list of a commit over several files stays while a journal of it does. */
TEST(PublisherOpen, ListOfJournalsIsRemovedWhenNoneOfThemIsThere)
{
    const PublisherWorld world;
    const std::string kept = world.paths.live_handlers + "-mj0123AB901";
    const std::string stale = world.paths.live_handlers + "-mj0123AB902";
    const std::string journal = world.folder.path("other.db-journal");
    const std::string empty = world.folder.path("empty.db-journal");
    Published published;

    std::ofstream(journal) << "x";
    std::ofstream(empty) << "";
    std::ofstream(kept) << world.paths.live_responder + "-journal" << '\0' << journal << '\0';
    std::ofstream(stale) << world.paths.live_responder + "-journal" << '\0' << empty << '\0';
    EXPECT_EQ(world.publisher(&published)->open_live(), 0);
    EXPECT_EQ(world.files(), (Lines{"handlers.db", "handlers.db-mj0123AB901", "responder.db"}));
}

/* Not even read: it might be a pipe. */
TEST(PublisherOpen, WhatOnlyBeginsLikeAListOfJournalsStays)
{
    const PublisherWorld world;
    const std::string start = world.paths.live_handlers + "-mj";
    Published published;

    for (const char *const name : {"-notes.txt", "0123AB90", "0123AB9012", "0123AB801", "0123ab901"})
        std::ofstream(start + name) << "x";
    ASSERT_EQ(::mkfifo((start + "0123AB903").c_str(), 0600), 0);

    const Lines before = world.files();

    EXPECT_EQ(world.publisher(&published)->open_live(), 0);
    EXPECT_EQ(world.files(), before);
}

struct MeanwhileRow {
    const char *what;
    Deed deed;
    std::string trouble; /* behind the path of the store; empty when all is published */
    bool is_responder;
    bool prunes = true;
};

const Deed other_handlers = [](const PublisherWorld &world) {
    (void)world.run(world.paths.live_handlers, sql_handler("m@x.test") + sql_handler("same@x.test", 1) +
                                                   "DELETE FROM handlers WHERE address = 'other@x.test'");
};

const std::vector<MeanwhileRow> meanwhile_rows = {
    {"a reply was added",
     [](const PublisherWorld &world) {
         (void)world.run(world.paths.live_responder, sql_reply("m@x.test", "M"));
     },
     " was changed meanwhile", true},
    {"the responder store was replaced",
     [](const PublisherWorld &world) {
         std::filesystem::copy_file(world.paths.live_responder, world.paths.live_responder + ".new");
         std::filesystem::rename(world.paths.live_responder + ".new", world.paths.live_responder);
     },
     " was changed meanwhile", true},
    {"the responder store was removed",
     [](const PublisherWorld &world) { std::filesystem::remove(world.paths.live_responder); },
     " was changed meanwhile", true},
    {"the handlers store was replaced",
     [](const PublisherWorld &world) {
         std::filesystem::copy_file(world.paths.live_handlers, world.paths.live_handlers + ".new");
         std::filesystem::rename(world.paths.live_handlers + ".new", world.paths.live_handlers);
     },
     " was replaced meanwhile", false},
    {"a handler that is to be changed was changed",
     [](const PublisherWorld &world) {
         (void)world.run(world.paths.live_handlers, sql_handler("old@x.test", 4));
     },
     ": a handler that was to be written was changed meanwhile", false},
    {"a handler that is to be changed was changed in its place",
     [](const PublisherWorld &world) {
         (void)world.run(world.paths.live_handlers,
                         "UPDATE handlers SET priority = 4 WHERE address = 'old@x.test'");
     },
     ": a handler that was to be written was changed meanwhile", false},
    {"a handler that is to be changed was removed",
     [](const PublisherWorld &world) {
         (void)world.run(world.paths.live_handlers, "DELETE FROM handlers WHERE address = 'old@x.test'");
     },
     ": a handler that was to be written was changed meanwhile", false},
    {"a handler that is to be removed was changed",
     [](const PublisherWorld &world) {
         (void)world.run(world.paths.live_handlers, sql_handler("gone@x.test", 4));
     },
     ": a handler that was to be written was changed meanwhile", false},
    {"a handler that is to be added was added",
     [](const PublisherWorld &world) {
         (void)world.run(world.paths.live_handlers, sql_handler("new@x.test", 4));
     },
     ": a handler that was to be written was changed meanwhile", false},
    {"other handlers were added, changed and removed", other_handlers, "", false, false},
    {"the same, and one is to be pruned", other_handlers, " was changed meanwhile", false},
    {"a store was looked at, and its times changed",
     [](const PublisherWorld &world) {
         (void)world.rows(world.paths.live_responder);
         std::filesystem::last_write_time(world.paths.live_handlers,
                                          std::filesystem::file_time_type::clock::now());
     },
     "", true},
};

TEST(PublisherMeanwhile, WhatSomebodyElseWroteIsNotOverwritten)
{
    for (const MeanwhileRow &row : meanwhile_rows) {
        const PublisherWorld world;
        PublishOptions options;
        Lines replies;
        Lines handlers;

        SCOPED_TRACE(row.what);
        if (row.prunes)
            options.prune = {{"2", "1", "gone@x.test"}};
        (void)world.run(world.paths.live_responder, sql_reply("a@x.test", "A"));
        (void)world.run(world.paths.staged_responder, sql_reply("b@x.test", "B"));
        (void)world.run(world.paths.live_handlers, sql_handler("old@x.test", 1) + sql_handler("gone@x.test") +
                                                       sql_handler("same@x.test") +
                                                       sql_handler("other@x.test"));

        const Published published = world.publish(
            [&] {
                (void)world.run(world.paths.staged_handlers,
                                sql_handler("old@x.test") + sql_handler("new@x.test"));
            },
            options,
            [&] {
                row.deed(world);
                if (std::filesystem::exists(world.paths.live_responder))
                    replies = world.rows(world.paths.live_responder);
                handlers = world.rows(world.paths.live_handlers);
            });

        if (row.trouble.empty()) {
            EXPECT_EQ(published.result, PublishResult::published);
            EXPECT_EQ(published.troubles, Lines{});
            continue;
        }
        EXPECT_EQ(published.result, PublishResult::changed_meanwhile);
        EXPECT_EQ(
            published.troubles,
            Lines{(row.is_responder ? world.paths.live_responder : world.paths.live_handlers) + row.trouble});
        if (std::filesystem::exists(world.paths.live_responder)) {
            EXPECT_EQ(world.rows(world.paths.live_responder), replies);
        }
        EXPECT_EQ(world.rows(world.paths.live_handlers), handlers);
    }
}

TEST(PublisherMeanwhile, ChangeOfTheResponderStoreIsSeenBeforehand)
{
    const PublisherWorld world;
    Published published;
    const std::unique_ptr<Publisher> publisher = world.publisher(&published);

    ASSERT_EQ(publisher->open_live(), 0);
    EXPECT_FALSE(publisher->responder_changed());
    (void)world.run(world.paths.live_responder, sql_reply("m@x.test", "M"));
    EXPECT_TRUE(publisher->responder_changed());
    ASSERT_EQ(publisher->open_live(), 0);
    EXPECT_FALSE(publisher->responder_changed());
    std::filesystem::remove(world.paths.live_responder);
    EXPECT_TRUE(publisher->responder_changed());
    ASSERT_EQ(publisher->open_live(), 0);
    EXPECT_FALSE(publisher->responder_changed());
    std::filesystem::copy_file(world.paths.staged_responder, world.paths.live_responder);
    EXPECT_TRUE(publisher->responder_changed());
}

/* The file's times are those of a tick of the kernel's clock, in which there is room for several commits. */
TEST(PublisherMeanwhile, CommitsOfOneMomentAreToldApart)
{
    const PublisherWorld world;
    Published published;
    const std::unique_ptr<Publisher> publisher = world.publisher(&published);

    (void)world.run(world.paths.live_responder, sql_reply("a@x.test", "A"));
    for (int round = 0; round < 100; round++) {
        (void)world.run(world.paths.live_responder, "UPDATE autoresponder SET body = 'B'");
        ASSERT_EQ(publisher->open_live(), 0);
        (void)world.run(world.paths.live_responder, "UPDATE autoresponder SET body = 'C'");
        ASSERT_TRUE(publisher->responder_changed());
    }
}

class LockedTest : public ::testing::TestWithParam<bool>
{
protected:
    LockedTest()
    {
        (void)world.run(world.paths.staged_responder, sql_reply("b@x.test", "B"));
        EXPECT_EQ(publisher(5)->open_live(), 0);
    }

    [[nodiscard]] const std::string &path() const
    {
        return GetParam() ? world.paths.live_responder : world.paths.live_handlers;
    }
    [[nodiscard]] const std::string &other_path() const
    {
        return GetParam() ? world.paths.live_handlers : world.paths.live_responder;
    }
    std::unique_ptr<Publisher> publisher(int wait_seconds)
    {
        return world.publisher(&published, wait_seconds);
    }

    /* Opens and compares; the connections are idle afterwards. */
    std::unique_ptr<Publisher> ready_publisher(int wait_seconds)
    {
        std::unique_ptr<Publisher> ready = publisher(wait_seconds);

        EXPECT_EQ(ready->open_live(), 0);
        EXPECT_EQ(ready->copy_handlers(), 0);
        EXPECT_EQ(ready->compare({}, {}, &published.counts), 0);
        return ready;
    }

    PublisherWorld world;
    Published published;
};

TEST_P(LockedTest, LockThatGoesIsWaitedForInEachStep)
{
    const std::unique_ptr<Publisher> waiting = publisher(60);
    const auto locked = [&] {
        return OtherProcessLock(path(), 100);
    };

    {
        const OtherProcessLock lock = locked();
        EXPECT_EQ(waiting->open_live(), 0);
    }
    {
        const OtherProcessLock lock = locked();
        EXPECT_EQ(waiting->copy_handlers(), 0);
    }
    {
        const OtherProcessLock lock = locked();
        EXPECT_EQ(waiting->compare({}, {}, &published.counts), 0);
    }
    {
        const OtherProcessLock lock = locked();
        EXPECT_EQ(waiting->publish(), PublishResult::published);
    }
    EXPECT_EQ(published.troubles, Lines{});
    EXPECT_EQ(world.rows(world.paths.live_responder), world.rows(world.paths.staged_responder));
}

TEST_P(LockedTest, LockThatStaysIsTroubleAndNothingIsWritten)
{
    const std::unique_ptr<Publisher> ready = ready_publisher(0);

    {
        const HeldTransaction lock(path(), "BEGIN EXCLUSIVE");

        EXPECT_EQ(ready->publish(), PublishResult::failed);
        EXPECT_EQ(publisher(0)->open_live(), -1);
    }
    EXPECT_EQ(published.troubles,
              (Lines{"one of the stores is locked by another process, longer than was waited for (--wait)",
                     path() + " is locked by another process, longer than was waited for (--wait)"}));
    EXPECT_EQ(world.run(world.paths.live_responder, "SELECT count(*) FROM autoresponder"), Lines{"0"});
    EXPECT_EQ(ready->publish(), PublishResult::published);
}

/* Whoever holds one store locked gets at the other one, too, while both are waited for. */
TEST_P(LockedTest, NobodyElseIsKeptOutWhileALockIsWaitedFor)
{
    const std::unique_ptr<Publisher> ready = ready_publisher(60);
    const auto look_at_other = [&] {
        sqlite3 *db = nullptr;
        int refused = sqlite3_open(other_path().c_str(), &db);

        (void)sqlite3_busy_timeout(db, 10000);
        for (int look = 0; look < 50 && refused == SQLITE_OK; look++) {
            refused = sqlite3_exec(db, "BEGIN EXCLUSIVE; ROLLBACK", nullptr, nullptr, nullptr);
            (void)::poll(nullptr, 0, 2);
        }
        return refused == SQLITE_OK;
    };
    const HeldTransaction lock(path(), "BEGIN EXCLUSIVE", look_at_other);

    EXPECT_EQ(ready->publish(), PublishResult::published);
}

INSTANTIATE_TEST_SUITE_P(Stores, LockedTest, ::testing::Bool());

} // namespace

} // namespace kolmo
