#include "tests/support/handlers_store_fixture.h"

#include <algorithm>
#include <cstdlib>

#include <poll.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
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

std::string column_or_null(sqlite3_stmt *row, int column)
{
    return text_or_null(reinterpret_cast<const char *>(sqlite3_column_text(row, column)));
}

/* A test's own file need not survive a power cut, and so the test is quick. */
void do_not_sync(const StoreConnection &connection)
{
    (void)sqlite3_exec(connection.get(), "PRAGMA synchronous = OFF", nullptr, nullptr, nullptr);
}

/* What the locking process does; it leaves without cleaning up what it inherited. */
[[noreturn]] void hold_lock(const char *path, int ready, int milliseconds)
{
    sqlite3 *db = nullptr;

    if (sqlite3_open(path, &db) != SQLITE_OK ||
        sqlite3_exec(db, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr) != SQLITE_OK ||
        write(ready, "", 1) != 1)
        _exit(1);
    (void)poll(nullptr, 0, milliseconds);
    _exit(sqlite3_close(db) == SQLITE_OK ? 0 : 1);
}

} // namespace

HandlersStore::HandlersStore() : path_(folder_.path("handlers.db")), saved_path_(handlers_db_path)
{
    handlers_db_set_path(path_.c_str());
    EXPECT_EQ(handlers_db_create_schema(), 0);
}

HandlersStore::~HandlersStore()
{
    handlers_db_set_path(saved_path_);
}

bool HandlersStore::exists() const
{
    return access(path_.c_str(), F_OK) == 0;
}

void HandlersStore::remove() const
{
    EXPECT_EQ(unlink(path_.c_str()), 0);
}

StoreConnection HandlersStore::open(OpenMode mode) const
{
    StoreConnection connection;

    EXPECT_EQ(open_store(&connection, path_.c_str(), mode), 0);
    return connection;
}

void HandlersStore::execute(const std::string &sql) const
{
    const StoreConnection connection = open();

    do_not_sync(connection);
    EXPECT_EQ(sqlite3_exec(connection.get(), sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
        << connection.detail() << ": " << sql;
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
    const StoreConnection connection = open(OpenMode::read_only);
    sqlite3_stmt *select = nullptr;
    Lines found;

    EXPECT_EQ(sqlite3_prepare_v2(connection.get(), sql.c_str(), -1, &select, nullptr), SQLITE_OK)
        << connection.detail() << ": " << sql;
    while (select != nullptr && sqlite3_step(select) == SQLITE_ROW) {
        std::string line = column_or_null(select, 0);

        for (int column = 1; column < sqlite3_column_count(select); column++)
            line += '|' + column_or_null(select, column);
        found.push_back(line);
    }
    EXPECT_EQ(sqlite3_finalize(select), SQLITE_OK) << connection.detail();
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

StoreLock::StoreLock(const std::string &path, int milliseconds)
{
    int ready[2];
    char byte;

    if (pipe(ready) != 0) {
        ADD_FAILURE() << "no pipe";
        return;
    }
    process_ = fork();
    if (process_ == 0)
        hold_lock(path.c_str(), ready[1], milliseconds);
    (void)close(ready[1]);
    EXPECT_EQ(read(ready[0], &byte, 1), 1) << "the other process has not locked " << path;
    (void)close(ready[0]);
}

StoreLock::~StoreLock()
{
    int status = 0;

    if (process_ > 0) {
        EXPECT_EQ(waitpid(process_, &status, 0), process_);
        EXPECT_EQ(status, 0);
    }
}

} // namespace kolmo::testing
