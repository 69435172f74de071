/* A responder store that cannot be mended row by row is replaced whole. */
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/refresh/publisher_world.h"

namespace kolmo
{

namespace
{

using namespace testing;

void write_file(const std::string &path, const std::string &content)
{
    std::ofstream(path, std::ios::binary) << content;
}

std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);

    return {std::istreambuf_iterator<char>(file), {}};
}

std::string status_of(const std::string &path)
{
    struct stat status = {};

    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return std::to_string(status.st_uid) + ':' + std::to_string(status.st_gid) + ' ' +
           std::to_string(status.st_mode & 07777);
}

/* Spoils a page in the middle of the file. */
void damage(const std::string &path)
{
    std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);

    file.seekp(4096);
    file << std::string(4096, '\x7f');
}

struct FlawRow {
    const char *what;
    std::function<void(const PublisherWorld &, const std::string &path)> spoil;
    std::string reason; /* what is noted begins with it, behind the path */
    Lines changes;
};

const Lines all_added = {"added autoresponder a@x.test", "added autoresponder b@x.test"};
const Lines differing = {"added autoresponder b@x.test", "removed autoresponder old@x.test"};

const auto sql = [](const char *statement) {
    return [statement](const PublisherWorld &world, const std::string &path) {
        (void)world.run(path, statement);
    };
};

const std::vector<FlawRow> flaw_rows = {
    {"missing", [](const PublisherWorld &, const std::string &path) { ::unlink(path.c_str()); },
     " is missing", all_added},
    {"missing, with a journal left",
     [](const PublisherWorld &, const std::string &path) {
         ::unlink(path.c_str());
         for (const char *const suffix : {"-journal", "-wal", "-shm"})
             write_file(path + suffix, "of a store that is not there any more");
     },
     " is missing", all_added},
    {"empty", [](const PublisherWorld &, const std::string &path) { write_file(path, ""); }, " is empty",
     all_added},
    {"garbage",
     [](const PublisherWorld &, const std::string &path) { write_file(path, std::string(9000, 'x')); },
     " is no database", all_added},
    {"cut off",
     [](const PublisherWorld &, const std::string &path) { std::filesystem::resize_file(path, 100); },
     " is no database, or is damaged", all_added},
    {"damaged", [](const PublisherWorld &, const std::string &path) { damage(path); },
     " is damaged (PRAGMA integrity_check): ", all_added},
    {"with an index that has lost its rows",
     [](const PublisherWorld &world, const std::string &path) {
         world.empty_index(path, "sqlite_autoindex_autoresponder_1", "mn, row");
     },
     " is damaged (PRAGMA integrity_check): ", all_added},
    {"of a format that nobody knows yet",
     [](const PublisherWorld &, const std::string &path) {
         std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);

         file.seekp(47);
         file << '\7';
     },
     " cannot be read: unsupported file format", all_added},
    {"without a table", sql("DROP TABLE attachments"), " has other tables than a rebuild makes", differing},
    {"with another column", sql("ALTER TABLE autoresponder ADD COLUMN more"),
     " has other tables than a rebuild makes", all_added},
    {"with another index", sql("CREATE INDEX i ON autoresponder(body)"),
     " has other tables than a rebuild makes", differing},
    {"of another version", sql("PRAGMA user_version = 7"), " has other tables than a rebuild makes",
     differing},
};

class ReplacementTest : public ::testing::Test
{
protected:
    static void fill(const PublisherWorld &world)
    {
        (void)world.run(world.paths.live_responder,
                        sql_reply("a@x.test", "A") + sql_reply("old@x.test", "O"));
        (void)world.run(world.paths.staged_responder,
                        sql_reply("a@x.test", "A") + sql_reply("b@x.test", "B"));
        EXPECT_EQ(::chmod(world.paths.staged_responder.c_str(), 0640), 0);
        if (::geteuid() == 0) {
            EXPECT_EQ(::chown(world.paths.staged_responder.c_str(), 123, 456), 0);
        }
    }

    static void rebuild(const PublisherWorld &world)
    {
        (void)world.run(world.paths.staged_handlers, sql_handler("b@x.test"));
    }
};

TEST_F(ReplacementTest, StoreThatCannotBeMendedIsTheStagedFileAfterwardsWithItsOwnerAndMode)
{
    for (const FlawRow &row : flaw_rows) {
        const PublisherWorld world;
        Lines expected = row.changes;

        SCOPED_TRACE(row.what);
        fill(world);
        row.spoil(world, world.paths.live_responder);
        write_file(world.paths.live_responder + "-refresh", "of a process that was killed");

        const Published published = world.publish([&] { rebuild(world); });

        expected.push_back("added handlers b@x.test");
        EXPECT_EQ(published.troubles, Lines{});
        ASSERT_EQ(published.notes.size(), 1U);
        EXPECT_EQ(published.notes[0].rfind(world.paths.live_responder + row.reason, 0), 0U)
            << published.notes[0];
        EXPECT_NE(published.notes[0].find(": it is replaced whole"), std::string::npos);
        EXPECT_EQ(published.changes, expected);
        EXPECT_EQ(published.result, PublishResult::published);
        EXPECT_EQ(read_file(world.paths.live_responder), read_file(world.paths.staged_responder));
        EXPECT_EQ(status_of(world.paths.live_responder), status_of(world.paths.staged_responder));
        EXPECT_EQ(world.run(world.paths.live_handlers, "SELECT address FROM handlers"), Lines{"b@x.test"});
        EXPECT_EQ(world.files(), (Lines{"handlers.db", "responder.db"}));
    }
}

constexpr char numberless[] =
    "DROP TABLE autoresponder; DROP TABLE extra_headers; CREATE TABLE autoresponder (mn TEXT PRIMARY KEY, "
    "body) "
    "WITHOUT ROWID; CREATE TABLE extra_headers (name, value, PRIMARY KEY (name, value)) WITHOUT ROWID;"
    "INSERT INTO autoresponder VALUES ('a@x.test', 'A'); INSERT INTO extra_headers VALUES ('X', '1'), ('X', "
    "'2');";

/* They can be compared, but not written row by row. */
TEST_F(ReplacementTest, StoreWithATableWithoutRowNumbersIsReplacedWhenARowDiffers)
{
    const PublisherWorld world;
    PublishOptions options;

    options.removes = false;
    for (const std::string &path : {world.paths.live_responder, world.paths.staged_responder})
        (void)world.run(path, numberless);
    (void)world.run(world.paths.staged_responder, "VACUUM");

    const Published nothing = world.publish({}, options);

    EXPECT_EQ(nothing.result, PublishResult::published);
    EXPECT_EQ(nothing.changes, Lines{});
    EXPECT_EQ(nothing.notes, Lines{});
    EXPECT_NE(read_file(world.paths.live_responder), read_file(world.paths.staged_responder));

    (void)world.run(world.paths.staged_responder,
                    "UPDATE autoresponder SET body = 'B'; DELETE FROM extra_headers WHERE value = '1'");

    const Published published = world.publish({}, options);

    EXPECT_EQ(published.result, PublishResult::published);
    EXPECT_EQ(published.troubles, Lines{});
    EXPECT_EQ(published.notes,
              Lines{world.paths.live_responder + " differs and has a table without row numbers: "
                                                 "it is replaced whole"});
    EXPECT_EQ(published.changes, (Lines{"changed autoresponder a@x.test", "removed extra_headers X"}));
    EXPECT_EQ(read_file(world.paths.live_responder), read_file(world.paths.staged_responder));
}

/* A rebuild that failed replaces, too, what cannot be used: what is gone with it is told. */
TEST_F(ReplacementTest, RowsThatGoWithTheOldFileAreToldEvenWhenNothingIsToBeRemoved)
{
    const PublisherWorld world;
    PublishOptions options;

    options.removes = false;
    fill(world);
    (void)world.run(world.paths.live_responder, "PRAGMA user_version = 7");
    EXPECT_EQ(world.publish({}, options).changes, differing);
}

TEST_F(ReplacementTest, FileBesideTheStoreIsGoneWhenTheNextOneOpensIt)
{
    const PublisherWorld world;
    Published published;

    write_file(world.paths.live_responder + "-refresh", "of a process that was killed");
    ASSERT_EQ(world.publisher(&published)->open_live(), 0);
    EXPECT_EQ(world.files(), (Lines{"handlers.db", "responder.db"}));
}

TEST_F(ReplacementTest, StoreThatIsReachedByALinkStaysReachedByIt)
{
    const PublisherWorld world;
    const std::string elsewhere = world.folder.path("elsewhere.db");

    fill(world);
    std::filesystem::remove(world.paths.live_responder);
    write_file(elsewhere, "garbage");
    std::filesystem::create_symlink(elsewhere, world.paths.live_responder);
    EXPECT_EQ(world.publish().result, PublishResult::published);
    EXPECT_TRUE(std::filesystem::is_symlink(world.paths.live_responder));
    EXPECT_EQ(read_file(elsewhere), read_file(world.paths.staged_responder));
}

/* Where something is not mounted, perhaps. */
TEST_F(ReplacementTest, LinkToAFileThatIsMissingIsTrouble)
{
    const PublisherWorld world;
    Published published;

    std::filesystem::remove(world.paths.live_responder);
    std::filesystem::create_symlink(world.folder.path("elsewhere.db"), world.paths.live_responder);
    EXPECT_EQ(world.publisher(&published)->open_live(), -1);
    EXPECT_EQ(published.troubles, Lines{world.paths.live_responder + " is a link to a file that is missing"});
    EXPECT_TRUE(std::filesystem::is_symlink(world.paths.live_responder));
}

/* In each case the old file is there, and the handlers are not written. */
TEST_F(ReplacementTest, FileThatChangedMeanwhileIsNotReplaced)
{
    const std::vector<FlawRow> rows = {
        {"missing", [](const PublisherWorld &, const std::string &path) { ::unlink(path.c_str()); }, "", {}},
        {"garbage", [](const PublisherWorld &, const std::string &path) { write_file(path, "x"); }, "", {}},
        {"other", sql("PRAGMA user_version = 7"), "", {}},
    };

    for (const FlawRow &row : rows) {
        const PublisherWorld world;

        SCOPED_TRACE(row.what);
        fill(world);
        row.spoil(world, world.paths.live_responder);

        const Published published = world.publish(
            [&] { rebuild(world); }, {},
            [&] {
                std::filesystem::copy_file(world.paths.staged_responder, world.paths.live_responder,
                                           std::filesystem::copy_options::overwrite_existing);
                (void)world.run(world.paths.live_responder, sql_reply("mine@x.test", "M"));
            });

        EXPECT_EQ(published.result, PublishResult::changed_meanwhile);
        EXPECT_EQ(published.troubles, Lines{world.paths.live_responder + " was changed meanwhile"});
        EXPECT_EQ(world.run(world.paths.live_responder, "SELECT count(*) FROM autoresponder"), Lines{"3"});
        EXPECT_EQ(world.run(world.paths.live_handlers, "SELECT count(*) FROM handlers"), Lines{"0"});
        EXPECT_EQ(world.files(), (Lines{"handlers.db", "responder.db"}));
    }
}

} // namespace

} // namespace kolmo
