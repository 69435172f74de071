#include "tests/support/handlers_store_fixture.h"

#include <algorithm>

#include <sqlite3.h>
#include <unistd.h>

#include "handlers_store/handlers_db.h"

namespace kolmo::testing
{

namespace
{

std::string text_or_null(const char *text)
{
    return text != nullptr ? text : "NULL";
}

/* A test's own file need not survive a power cut, and so the test is quick. */
void do_not_sync(const StoreConnection &connection)
{
    (void)sqlite3_exec(connection.get(), "PRAGMA synchronous = OFF", nullptr, nullptr, nullptr);
}

} // namespace

HandlersStore::HandlersStore() : StoreFile("handlers.db", handlers_db_path)
{
    EXPECT_EQ(handlers_db_create_schema(), 0);
}

bool HandlersStore::exists() const
{
    return access(path().c_str(), F_OK) == 0;
}

void HandlersStore::remove() const
{
    EXPECT_EQ(unlink(path().c_str()), 0);
}

void HandlersStore::execute(const std::string &sql) const
{
    const StoreConnection connection = open();

    do_not_sync(connection);
    (void)result_rows(connection.get(), sql);
}

void HandlersStore::add(const HandlerRecord &record) const
{
    const StoreConnection connection = open();
    sqlite3_stmt *insert = nullptr;

    do_not_sync(connection);
    ASSERT_EQ(sqlite3_prepare_v2(connection.get(), "INSERT INTO handlers VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?)",
                                 -1, &insert, nullptr),
              SQLITE_OK);
    (void)sqlite3_bind_int(insert, 1, record.queue);
    (void)sqlite3_bind_int(insert, 2, record.type);
    (void)sqlite3_bind_int(insert, 3, record.enabled);
    (void)sqlite3_bind_int(insert, 4, record.priority);
    (void)sqlite3_bind_text(insert, 5, record.name, -1, SQLITE_STATIC);
    (void)sqlite3_bind_text(insert, 6, record.address, -1, SQLITE_STATIC);
    (void)sqlite3_bind_text(insert, 7, record.executable, -1, SQLITE_STATIC);
    (void)sqlite3_bind_text(insert, 8, record.context, -1, SQLITE_STATIC);
    (void)sqlite3_bind_int(insert, 9, record.protect_on_restore);
    EXPECT_EQ(sqlite3_step(insert), SQLITE_DONE) << connection.detail();
    (void)sqlite3_finalize(insert);
}

/* The smallest integer has no absolute value, which shows when a row is made. */
void HandlersStore::make_unreadable() const
{
    execute("DROP TABLE handlers; CREATE VIEW handlers AS SELECT 2 AS queue, 1 AS type, 1 AS enabled, "
            "abs(-9223372036854775807 - 1) AS priority, 'spam' AS name, 'd.test' AS address, '/hook' AS "
            "executable, 'none' AS context, 0 AS protected");
}

Lines HandlersStore::query(const std::string &sql) const
{
    Lines found = result_rows(open(OpenMode::read_only).get(), sql);

    std::sort(found.begin(), found.end());
    return found;
}

Lines HandlersStore::rows() const
{
    return query("SELECT queue, type, enabled, priority, name, address, executable, context, protected "
                 "FROM handlers");
}

Lines HandlersStore::handlers() const
{
    return query("SELECT address || ' ' || name FROM handlers");
}

HandlerRecord handler(const char *name, const char *address)
{
    return {10, 1, 2, name, address, "/hook", "none", false, true};
}

std::string text_of(const HandlerRecord &record)
{
    return std::to_string(record.queue) + '|' + std::to_string(record.type) + '|' +
           std::to_string(int{record.enabled}) + '|' + std::to_string(record.priority) + '|' +
           text_or_null(record.name) + '|' + text_or_null(record.address) + '|' +
           text_or_null(record.executable) + '|' + text_or_null(record.context) + '|' +
           std::to_string(int{record.protect_on_restore});
}

Lines texts_of(const HandlerList &list)
{
    Lines texts;

    for (const HandlerNode *node = list.head; node != nullptr; node = node->next)
        texts.push_back(text_of(*node->record));
    return texts;
}

} // namespace kolmo::testing
