#include "tests/support/killed_writer.h"

#include <csignal>

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolmo::testing
{

namespace
{

const char more_than_the_cache[] =
    "CREATE TABLE lost (x);"
    "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 200) "
    "INSERT INTO lost SELECT zeroblob(2000) FROM n;";

/* What the writing process does; SQLite is asked by a call that no test makes fail. */
[[noreturn]] void write_and_die(const std::string &path, const std::string &sql)
{
    const std::string script = "PRAGMA cache_size = 1; BEGIN;" + sql + ';' + more_than_the_cache;
    sqlite3 *connection = nullptr;
    char **cells = nullptr;
    int rows;
    int columns;

    if (sqlite3_open(path.c_str(), &connection) == SQLITE_OK &&
        sqlite3_get_table(connection, script.c_str(), &cells, &rows, &columns, nullptr) == SQLITE_OK)
        (void)raise(SIGKILL);
    _exit(1);
}

} // namespace

void kill_writer(const std::string &path, const std::string &sql)
{
    struct stat journal = {};
    int status = -1;
    const pid_t writer = fork();

    if (writer == 0)
        write_and_die(path, sql);
    ASSERT_EQ(waitpid(writer, &status, 0), writer);
    EXPECT_TRUE(WIFSIGNALED(status)) << "the writer has met an error";
    EXPECT_EQ(stat((path + "-journal").c_str(), &journal), 0);
    EXPECT_GT(journal.st_size, 0);
}

} // namespace kolmo::testing
