#include "tests/support/responder_store_fixture.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/owned.h"
#include "responder_store/responder_db.h"
#include "tests/support/responder_schema.h"

namespace kolmo::testing
{

namespace
{

/* sqlite3_get_table is no call of the code under test, so it is never recorded or made to fail. */
bool runs(sqlite3 *connection, const char *sql)
{
    char **cells = nullptr;
    int rows = 0;
    int columns = 0;
    const int rc = sqlite3_get_table(connection, sql, &cells, &rows, &columns, nullptr);

    sqlite3_free_table(cells);
    return rc == SQLITE_OK;
}

/* What the locking process does; it leaves without cleaning up what it inherited. */
[[noreturn]] void hold_lock(const char *path, int ready, int milliseconds)
{
    sqlite3 *connection = nullptr;

    if (sqlite3_open(path, &connection) != SQLITE_OK || !runs(connection, "BEGIN EXCLUSIVE") ||
        write(ready, "", 1) != 1)
        _exit(1);
    (void)poll(nullptr, 0, milliseconds);
    _exit(runs(connection, "COMMIT") ? 0 : 1);
}

} // namespace

ResponderStore::ResponderStore() : path_(folder_.path("responder.db")), saved_path_(responder_db_path)
{
    responder_db_path = path_.c_str();
    EXPECT_EQ(sqlite3_open(path_.c_str(), &connection_), SQLITE_OK);
    (void)sqlite3_busy_timeout(connection_, 5000);
    execute(responder_schema);
}

ResponderStore::~ResponderStore()
{
    EXPECT_EQ(sqlite3_close(connection_), SQLITE_OK);
    responder_db_path = saved_path_;
}

Lines ResponderStore::query(const std::string &sql) const
{
    char **cells = nullptr;
    int rows = 0;
    int columns = 0;
    Lines found;

    EXPECT_EQ(sqlite3_get_table(connection_, sql.c_str(), &cells, &rows, &columns, nullptr), SQLITE_OK)
        << sqlite3_errmsg(connection_) << ": " << sql;
    for (int row = 1; row <= rows; row++) {
        std::string line;

        for (int column = 0; column < columns; column++) {
            const char *const cell = cells[row * columns + column];

            line += column > 0 ? "|" : "";
            line += cell != nullptr ? cell : "NULL";
        }
        found.push_back(line);
    }
    sqlite3_free_table(cells);
    return found;
}

Lines ResponderStore::rows(const std::string &table) const
{
    return query("SELECT * FROM " + table + " ORDER BY rowid");
}

Lines ResponderStore::rows() const
{
    Lines all;

    for (const std::string table : {"autoresponder", "attachments", "extra_headers"})
        for (const std::string &row : rows(table))
            all.push_back(table + ": " + row);
    return all;
}

StoreConnection ResponderStore::open() const
{
    StoreConnection connection;

    EXPECT_EQ(open_store(&connection, path_.c_str(), OpenMode::read_write), 0);
    return connection;
}

ResponderRecord sample_responder()
{
    static char name[] = "default";
    static char keystr[] = "key";
    static char key_where[] = "where";
    static char subject[] = "Subject";
    static char reply_to[] = "Reply@Example.org";
    static char content_type[] = "text/plain";
    static char charset[] = "UTF-8";
    static char text[] = "Gone\nfishing";
    static char on[] = "true";
    static char forward_address[] = "Forward@Example.org";
    static char mail_name[] = "Owner";

    return {4,       5,    name, keystr, key_where, subject,         reply_to, content_type,
            charset, text, on,   17,     -3,        forward_address, mail_name};
}

std::string sample_row(const std::string &mailname, const std::string &owner)
{
    return mailname +
           "|key|where|Subject|Reply@Example.org|Forward@Example.org|text/plain|UTF-8|Gone\nfishing|17|-3|" +
           owner;
}

bool in_transaction(const StoreConnection &connection)
{
    return connection.is_open() && sqlite3_get_autocommit(connection.get()) == 0;
}

OtherProcessLock::OtherProcessLock(const std::string &path, int milliseconds)
{
    int ends[2];
    char byte;

    if (pipe(ends) != 0) {
        ADD_FAILURE() << "no pipe";
        return;
    }

    const Fd ready(ends[0]);
    Fd tell(ends[1]);

    process_ = fork();
    if (process_ == 0)
        hold_lock(path.c_str(), tell.get(), milliseconds);
    tell.reset();
    EXPECT_EQ(read(ready.get(), &byte, 1), 1) << "the other process has not locked " << path;
}

OtherProcessLock::~OtherProcessLock()
{
    int status = -1;

    if (process_ <= 0)
        return;
    EXPECT_EQ(waitpid(process_, &status, 0), process_);
    EXPECT_EQ(status, 0);
}

} // namespace kolmo::testing
