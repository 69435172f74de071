#include "tests/refresh/publisher_world.h"

#include <algorithm>
#include <filesystem>

#include "tests/support/responder_schema.h"

namespace kolmo::testing
{

namespace
{

Lines tables_of(sqlite3 *connection)
{
    return result_rows(connection, "SELECT name FROM sqlite_schema WHERE type = 'table'");
}

} // namespace

std::string sql_reply(const std::string &address, const std::string &body)
{
    return "INSERT OR REPLACE INTO autoresponder VALUES ('" + address +
           "', 'key', 'where', 'subject', '', '', 'text/plain', "
           "'UTF-8', '" +
           body + "', 1, 2, 'owner');";
}

std::string sql_attachment(const std::string &address, const std::string &file)
{
    return "INSERT INTO attachments VALUES ('" + address + "', '" + file + "');";
}

std::string sql_header(const std::string &name, const std::string &value)
{
    return "INSERT INTO extra_headers VALUES ('" + name + "', '" + value + "');";
}

std::string sql_handler(const std::string &address, int priority, const std::string &name)
{
    return "INSERT OR REPLACE INTO handlers VALUES (2, 1, 1, " + std::to_string(priority) + ", '" + name +
           "', '" + address + "', '/hook', 'responder', 0);";
}

PublisherWorld::PublisherWorld()
{
    const std::string root = folder.path();

    std::filesystem::create_directory(root + "/live");
    std::filesystem::create_directory(root + "/staged");
    paths = {root + "/live/responder.db", root + "/live/handlers.db", root + "/staged/responder.db",
             root + "/staged/handlers.db", root + "/staged/handlers-before.db"};
    make(paths.live_responder, responder_schema);
    make(paths.staged_responder, responder_schema);
    make(paths.live_handlers, handlers_schema);
}

void PublisherWorld::make(const std::string &path, const std::string &sql) const
{
    sqlite3 *connection = nullptr;

    EXPECT_EQ(sqlite3_open(path.c_str(), &connection), SQLITE_OK);
    (void)result_rows(connection, sql);
    EXPECT_EQ(sqlite3_close(connection), SQLITE_OK);
}

Lines PublisherWorld::run(const std::string &path, const std::string &sql) const
{
    sqlite3 *connection = nullptr;

    EXPECT_EQ(sqlite3_open_v2(path.c_str(), &connection, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK) << path;
    (void)sqlite3_busy_timeout(connection, 10000);

    const Lines found = result_rows(connection, sql);

    EXPECT_EQ(sqlite3_close(connection), SQLITE_OK);
    return found;
}

/* SQLite takes the index's pages for a table's of its own. */
void PublisherWorld::empty_index(const std::string &path, const std::string &index,
                                 const std::string &columns) const
{
    sqlite3 *connection = nullptr;

    EXPECT_EQ(sqlite3_open_v2(path.c_str(), &connection, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK) << path;

    const Lines page =
        result_rows(connection, "SELECT rootpage FROM sqlite_schema WHERE name = '" + index + "'");

    EXPECT_EQ(sqlite3_test_control(SQLITE_TESTCTRL_IMPOSTER, connection, "main", 1, std::stoi(page.at(0))),
              SQLITE_OK);
    (void)result_rows(connection,
                      "CREATE TABLE imposter (" + columns + ", PRIMARY KEY (" + columns + ")) WITHOUT ROWID");
    EXPECT_EQ(sqlite3_test_control(SQLITE_TESTCTRL_IMPOSTER, connection, "main", 0, 0), SQLITE_OK);
    (void)result_rows(connection, "DELETE FROM imposter");
    EXPECT_EQ(sqlite3_close(connection), SQLITE_OK);
}

std::unique_ptr<Publisher> PublisherWorld::publisher(Published *published, int wait_seconds) const
{
    PublishSink sink;

    sink.trouble = [published](const std::string &words) {
        published->troubles.push_back(words);
    };
    sink.note = [published](const std::string &words) {
        published->notes.push_back(words);
    };
    return std::make_unique<Publisher>(paths, wait_seconds, sink);
}

Published PublisherWorld::publish(const std::function<void()> &rebuild, const PublishOptions &options,
                                  const std::function<void()> &meanwhile) const
{
    Published published;
    const std::unique_ptr<Publisher> publisher = this->publisher(&published);
    const auto each = [&](const Change &change) {
        published.changes.push_back(std::string(change_name(change.kind)) + ' ' + table_name(change.table) +
                                    ' ' + change.key);
    };

    if (publisher->open_live() != 0 || publisher->copy_handlers() != 0)
        return published;
    if (rebuild)
        rebuild();
    if (publisher->compare(options, each, &published.counts) != 0)
        return published;
    if (meanwhile)
        meanwhile();
    published.result = publisher->publish();
    return published;
}

Lines PublisherWorld::rows(const std::string &path) const
{
    sqlite3 *connection = nullptr;
    Lines all;

    EXPECT_EQ(sqlite3_open_v2(path.c_str(), &connection, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK) << path;
    for (const std::string &table : tables_of(connection)) {
        std::string columns;

        for (const std::string &column :
             result_rows(connection, "SELECT name FROM pragma_table_info('" + table + "')"))
            columns += ", typeof(" + column + "), hex(" + column + ")";
        for (const std::string &row :
             result_rows(connection, "SELECT '" + table + "'" + columns + " FROM " + table))
            all.push_back(row);
    }
    EXPECT_EQ(sqlite3_close(connection), SQLITE_OK);
    std::sort(all.begin(), all.end());
    return all;
}

Lines PublisherWorld::files() const
{
    Lines names;

    for (const auto &entry : std::filesystem::directory_iterator(folder.path("live")))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace kolmo::testing
