/* What differs is published, and nothing else is touched. */
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/refresh/held_transaction.h"
#include "tests/refresh/publisher_world.h"

namespace kolmo
{

namespace
{

using namespace testing;

const char two_schema[] = "DROP TABLE autoresponder; DROP TABLE attachments; DROP TABLE extra_headers;"
                          "CREATE TABLE autoresponder (mn, body); CREATE TABLE attachments (mn, filename);"
                          "CREATE TABLE extra_headers (name, value);";

struct DifferenceRow {
    const char *what;
    std::string both;   /* done to both responder stores first */
    std::string live;   /* to the live one */
    std::string staged; /* to the staged one */
    Lines changes;
};

const std::vector<DifferenceRow> difference_rows = {
    {"nothing at all", "", "", "", {}},
    {"the same rows, written in another order",
     "",
     sql_reply("a@x.test", "A") + sql_reply("b@x.test", "B"),
     sql_reply("b@x.test", "B") + sql_reply("a@x.test", "A"),
     {}},
    {"one more, one less, one other",
     sql_reply("same@x.test", "S"),
     sql_reply("gone@x.test", "G") + sql_reply("other@x.test", "O") + sql_header("X-A", "1") +
         sql_attachment("a@x.test", "1.pdf"),
     sql_reply("new@x.test", "N") + sql_reply("other@x.test", "P") + sql_header("X-A", "2") +
         sql_attachment("a@x.test", "2.pdf"),
     {"removed autoresponder gone@x.test", "added autoresponder new@x.test",
      "changed autoresponder other@x.test", "removed attachments a@x.test 1.pdf",
      "added attachments a@x.test 2.pdf", "changed extra_headers X-A"}},
    {"another case of a name",
     "",
     sql_reply("A@x.test", "A"),
     sql_reply("a@x.test", "A"),
     {"removed autoresponder A@x.test", "added autoresponder a@x.test"}},
    {"null and empty",
     sql_reply("a@x.test", ""),
     "",
     "UPDATE autoresponder SET body = NULL;",
     {"changed autoresponder a@x.test"}},
    {"a text and the same number",
     two_schema,
     "INSERT INTO extra_headers VALUES ('X', '1');",
     "INSERT INTO extra_headers VALUES ('X', 1);",
     {"changed extra_headers X"}},
    {"a number and the same real one",
     two_schema,
     "INSERT INTO extra_headers VALUES ('X', 1);",
     "INSERT INTO extra_headers VALUES ('X', 1.0);",
     {"changed extra_headers X"}},
    {"a text and the same blob",
     two_schema,
     "INSERT INTO extra_headers VALUES ('X', 'A');",
     "INSERT INTO extra_headers VALUES ('X', x'41');",
     {"changed extra_headers X"}},
    {"a text behind a zero byte",
     sql_header("X", ""),
     "UPDATE extra_headers SET value = CAST(x'410042' AS TEXT);",
     "UPDATE extra_headers SET value = CAST(x'410043' AS TEXT);",
     {"changed extra_headers X"}},
    {"a row more often, another less often",
     two_schema,
     "INSERT INTO attachments VALUES ('a', '1'), ('a', '1'), ('b', '1');",
     "INSERT INTO attachments VALUES ('a', '1'), ('b', '1'), ('b', '1');",
     {"removed attachments a 1", "added attachments b 1"}},
    {"rows without a name",
     two_schema,
     "INSERT INTO autoresponder VALUES (NULL, 'A'), (NULL, 'B');",
     "INSERT INTO autoresponder VALUES (NULL, 'B'), (NULL, 'C'), ('', 'D');",
     {"changed autoresponder ", "added autoresponder "}},
    {"values that two rows have exchanged",
     "DROP TABLE extra_headers; CREATE TABLE extra_headers (name TEXT UNIQUE, value TEXT UNIQUE);",
     sql_header("X-A", "1") + sql_header("X-B", "2"),
     sql_header("X-A", "2") + sql_header("X-B", "1"),
     {"changed extra_headers X-A", "changed extra_headers X-B"}},
    {"a table with row numbers of its own",
     "DROP TABLE extra_headers; CREATE TABLE extra_headers (id INTEGER PRIMARY KEY, name TEXT, value TEXT);",
     "INSERT INTO extra_headers VALUES (1, 'A', 'a'), (2, 'B', 'b');",
     "INSERT INTO extra_headers VALUES (2, 'A', 'a'), (1, 'B', 'b');",
     {"changed extra_headers A", "changed extra_headers B"}},
    {"a column that takes capitals for small letters",
     "DROP TABLE extra_headers; CREATE TABLE extra_headers (name TEXT UNIQUE COLLATE NOCASE, value TEXT);",
     sql_header("x-a", "1"),
     sql_header("X-A", "1"),
     {"added extra_headers X-A", "removed extra_headers x-a"}},
    {"a trigger, which has had its turn",
     "CREATE TRIGGER t AFTER INSERT ON autoresponder BEGIN INSERT OR IGNORE INTO extra_headers VALUES "
     "(new.mn, ''); END;",
     "",
     sql_reply("a@x.test", "A"),
     {"added autoresponder a@x.test", "added extra_headers a@x.test"}},
    {"a column that is computed",
     "DROP TABLE extra_headers; CREATE TABLE extra_headers (name TEXT, value TEXT, long TEXT AS (name || "
     "value));",
     sql_header("X-A", "1"),
     sql_header("X-A", "2"),
     {"changed extra_headers X-A"}},
    {"a name with quotes",
     "",
     "",
     "INSERT INTO extra_headers VALUES ('X''\"-A', '1');",
     {"added extra_headers X'\"-A"}},
};

TEST(PublisherDifference, RowsThatDifferAreToldAndTheLiveStoreIsLikeTheStagedOneAfterwards)
{
    for (const DifferenceRow &row : difference_rows) {
        const PublisherWorld world;

        SCOPED_TRACE(row.what);
        (void)world.run(world.paths.live_responder, row.both + row.live);
        (void)world.run(world.paths.staged_responder, row.both + row.staged);

        const Published published = world.publish();

        EXPECT_EQ(published.troubles, Lines{});
        EXPECT_EQ(published.notes, Lines{});
        EXPECT_EQ(published.changes, row.changes);
        EXPECT_EQ(published.counts.all(), row.changes.size());
        EXPECT_EQ(published.result, PublishResult::published);
        EXPECT_EQ(world.rows(world.paths.live_responder), world.rows(world.paths.staged_responder));
        EXPECT_EQ(world.files(), (Lines{"handlers.db", "responder.db"})); /* and nothing beside them */
    }
}

/* What a rebuild does to the handlers is published; what others wrote before, after and beside is not. */
TEST_F(PublisherTest, HandlersThatTheRebuildAddedOrChangedAreWrittenAndThoseOfOthersStay)
{
    (void)world.run(world.paths.live_handlers, sql_handler("old@x.test", 80) + sql_handler("same@x.test") +
                                                   sql_handler("spam@x.test", 5, "spam"));

    const Published published = world.publish(
        [&] {
            (void)world.run(world.paths.staged_handlers, sql_handler("old@x.test") +
                                                             sql_handler("new@x.test") +
                                                             sql_handler("same@x.test"));
        },
        {},
        [&] {
            (void)world.run(world.paths.live_handlers,
                            sql_handler("mine@x.test", 7, "spam") + sql_handler("same@x.test", 9) +
                                "DELETE FROM handlers WHERE address = 'spam@x.test';");
        });

    EXPECT_EQ(published.result, PublishResult::published);
    EXPECT_EQ(published.changes, (Lines{"added handlers new@x.test", "changed handlers old@x.test"}));
    EXPECT_EQ(published.troubles, Lines{});
    EXPECT_EQ(world.run(world.paths.live_handlers, "SELECT address, priority FROM handlers ORDER BY address"),
              (Lines{"mine@x.test|7", "new@x.test|90", "old@x.test|90", "same@x.test|9"}));
}

TEST_F(PublisherTest, HandlersWithoutAQueueMayBeThereTwice)
{
    const std::string nameless = "INSERT INTO handlers VALUES (NULL, NULL, 1, 1, 'autoresponder', "
                                 "'a@x.test', '/hook', 'responder', 0);";

    (void)world.run(world.paths.live_handlers, nameless);

    const Published published =
        world.publish([&] { (void)world.run(world.paths.staged_handlers, nameless + nameless); });

    EXPECT_EQ(published.result, PublishResult::published);
    EXPECT_EQ(published.counts.of(ChangeKind::added, ChangedTable::handlers), 2U);
    EXPECT_EQ(world.run(world.paths.live_handlers, "SELECT count(*) FROM handlers"), Lines{"3"});
}

/* Exactly the ones that are named, wherever they come from. */
TEST_F(PublisherTest, UnwantedAutoresponderHandlersAreRemoved)
{
    PublishOptions options;

    options.prune = {{"2", "1", "gone@x.test"},  {std::nullopt, "1", "null@x.test"},
                     {"2", "1", "new@x.test"},   {"2", "1", "no@x.test"},
                     {"abc", "1", "odd@x.test"}, {"2.5", "1", "odd@x.test"}};
    (void)world.run(
        world.paths.live_handlers,
        sql_handler("gone@x.test") + sql_handler("gone@x.test", 1, "spam") + sql_handler("Gone@x.test") +
            "INSERT INTO handlers VALUES (3, 1, 1, 1, 'autoresponder', 'gone@x.test', '', '', 0), "
            "(NULL, 1, 1, 1, 'autoresponder', 'null@x.test', '', '', 0), "
            "(0, 1, 1, 1, 'autoresponder', 'null@x.test', '', '', 0), "
            "(2, 1, 1, 1, 'autoresponder', 'odd@x.test', '', '', 0), "
            "(2.5, 1, 1, 1, 'autoresponder', 'odd@x.test', '', '', 0), "
            "('abc', 1, 1, 1, 'autoresponder', 'odd@x.test', '', '', 0);");

    const Published published = world.publish(
        [&] { (void)world.run(world.paths.staged_handlers, sql_handler("new@x.test")); }, options);

    EXPECT_EQ(published.result, PublishResult::published);
    EXPECT_EQ(published.changes, (Lines{"removed handlers gone@x.test", "removed handlers null@x.test",
                                        "removed handlers odd@x.test", "removed handlers odd@x.test"}));
    EXPECT_EQ(world.run(world.paths.live_handlers,
                        "SELECT queue, name, address FROM handlers ORDER BY address, name, queue"),
              (Lines{"2|autoresponder|Gone@x.test", "3|autoresponder|gone@x.test", "2|spam|gone@x.test",
                     "0|autoresponder|null@x.test", "2|autoresponder|odd@x.test"}));
}

/* It may be wanted by now, and be the same row again. */
TEST_F(PublisherTest, NothingIsPrunedWhenSomebodyHasWrittenHandlersMeanwhile)
{
    PublishOptions options;

    options.prune = {{"2", "1", "gone@x.test"}};
    (void)world.run(world.paths.live_handlers, sql_handler("gone@x.test"));

    const Published published = world.publish({}, options, [&] {
        (void)world.run(world.paths.live_handlers, "DELETE FROM handlers; " + sql_handler("gone@x.test"));
    });

    EXPECT_EQ(published.result, PublishResult::changed_meanwhile);
    EXPECT_EQ(published.troubles, Lines{world.paths.live_handlers + " was changed meanwhile"});
    EXPECT_EQ(world.run(world.paths.live_handlers, "SELECT address FROM handlers"), Lines{"gone@x.test"});
}

TEST_F(PublisherTest, AfterARebuildThatFailedNothingIsRemoved)
{
    PublishOptions options;

    options.removes = false;
    (void)world.run(world.paths.live_responder, sql_reply("a@x.test", "A") + sql_reply("b@x.test", "B") +
                                                    sql_attachment("b@x.test", "1.pdf"));
    (void)world.run(world.paths.staged_responder, sql_reply("a@x.test", "C") + sql_reply("c@x.test", "C"));

    const Published published = world.publish({}, options);

    EXPECT_EQ(published.result, PublishResult::published);
    EXPECT_EQ(published.changes, (Lines{"changed autoresponder a@x.test", "added autoresponder c@x.test"}));
    EXPECT_EQ(world.run(world.paths.live_responder, "SELECT mn, body FROM autoresponder ORDER BY mn"),
              (Lines{"a@x.test|C", "b@x.test|B", "c@x.test|C"}));
    EXPECT_EQ(world.run(world.paths.live_responder, "SELECT * FROM attachments"), Lines{"b@x.test|1.pdf"});
}

/* Inode, size, and both times, to the nanosecond. */
std::string stamp(const std::string &path)
{
    struct stat status = {};

    EXPECT_EQ(::stat(path.c_str(), &status), 0);
    return std::to_string(status.st_ino) + ' ' + std::to_string(status.st_size) + ' ' +
           std::to_string(status.st_mtim.tv_sec) + '.' + std::to_string(status.st_mtim.tv_nsec) + ' ' +
           std::to_string(status.st_ctim.tv_sec) + '.' + std::to_string(status.st_ctim.tv_nsec);
}

TEST_F(PublisherTest, WhereNothingDiffersNothingIsWrittenOrLocked)
{
    (void)world.run(world.paths.live_responder, sql_reply("a@x.test", "A"));
    (void)world.run(world.paths.staged_responder, sql_reply("a@x.test", "A"));
    (void)world.run(world.paths.live_handlers, sql_handler("a@x.test"));

    const Lines before = {stamp(world.paths.live_responder), stamp(world.paths.live_handlers),
                          stamp(world.folder.path("live"))};
    std::unique_ptr<HeldTransaction> lock;
    const Published published = world.publish(
        [&] { (void)world.run(world.paths.staged_handlers, sql_handler("a@x.test")); }, {},
        [&] { lock = std::make_unique<HeldTransaction>(world.paths.live_responder, "BEGIN EXCLUSIVE"); });

    lock.reset();
    EXPECT_EQ(published.result, PublishResult::published);
    EXPECT_EQ(published.changes, Lines{});
    EXPECT_EQ((Lines{stamp(world.paths.live_responder), stamp(world.paths.live_handlers),
                     stamp(world.folder.path("live"))}),
              before);
}

TEST_F(PublisherTest, OwnerModeAndOtherTablesOfTheLiveStoreStayAsTheyAre)
{
    const std::string other = "CREATE TABLE other (x); ";

    (void)world.run(world.paths.live_responder, other + "INSERT INTO other VALUES (1);");
    (void)world.run(world.paths.staged_responder, other + sql_reply("a@x.test", "A"));
    ASSERT_EQ(::chmod(world.paths.live_responder.c_str(), 0604), 0);

    const Published published = world.publish();
    struct stat status = {};

    EXPECT_EQ(published.result, PublishResult::published);
    EXPECT_EQ(published.notes, Lines{});
    EXPECT_EQ(world.run(world.paths.live_responder, "SELECT * FROM other"), Lines{"1"});
    ASSERT_EQ(::stat(world.paths.live_responder.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0604U);
}

/* What lies there is another one's, perhaps with a wider mode. */
TEST_F(PublisherTest, CopiesOfTheHandlersAreMadeAnewForTheirOwnerOnly)
{
    (void)world.run(world.paths.live_handlers, sql_handler("a@x.test"));
    for (const std::string &path : {world.paths.staged_handlers, world.paths.handlers_before}) {
        std::ofstream(path) << "something else";
        ASSERT_EQ(::chmod(path.c_str(), 0666), 0);
    }

    Published published;
    const std::unique_ptr<Publisher> publisher = world.publisher(&published);

    ASSERT_EQ(publisher->open_live(), 0);
    ASSERT_EQ(publisher->copy_handlers(), 0);
    for (const std::string &path : {world.paths.staged_handlers, world.paths.handlers_before}) {
        struct stat status = {};

        ASSERT_EQ(::stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0600U);
        EXPECT_EQ(world.rows(path), world.rows(world.paths.live_handlers));
    }
}

TEST_F(PublisherTest, StagedStoreThatIsMissingOrHasNoTablesIsTrouble)
{
    (void)world.run(world.paths.live_responder, sql_reply("a@x.test", "A"));

    const Lines before = world.rows(world.paths.live_responder);

    (void)world.run(world.paths.staged_responder, "DROP TABLE attachments");
    EXPECT_EQ(world.publish().troubles,
              Lines{"table attachments of the rebuilt responder store cannot be compared: no such table: "
                    "staged_responder.attachments"});
    std::filesystem::remove(world.paths.staged_responder);
    EXPECT_EQ(world.publish().troubles,
              Lines{world.paths.staged_responder + " cannot be read: unable to open database: file:" +
                    world.paths.staged_responder + "?mode=ro (No such file or directory)"});
    EXPECT_EQ(world.rows(world.paths.live_responder), before);
}

} // namespace

} // namespace kolmo
