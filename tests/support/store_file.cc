#include "tests/support/store_file.h"

namespace kolmo::testing
{

namespace
{

std::string joined(char *const *cells, int count)
{
    std::string line;

    for (int column = 0; column < count; column++) {
        line += column > 0 ? "|" : "";
        line += cells[column] != nullptr ? cells[column] : "NULL";
    }
    return line;
}

} // namespace

Lines result_rows(sqlite3 *connection, const std::string &sql)
{
    char **cells = nullptr; /* the columns' names, and then the rows */
    int rows = 0;
    int columns = 0;
    Lines found;

    EXPECT_EQ(sqlite3_get_table(connection, sql.c_str(), &cells, &rows, &columns, nullptr), SQLITE_OK)
        << sqlite3_errmsg(connection) << ": " << sql;
    for (int row = 1; row <= rows; row++)
        found.push_back(joined(cells + row * columns, columns));
    sqlite3_free_table(cells);
    return found;
}

} // namespace kolmo::testing
