/* What differs is published, and nothing else is touched. */
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

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
        EXPECT_EQ(world.files(), (Lines{"handlers.db", "responder.db"}));
    }
}

} // namespace

} // namespace kolmo
