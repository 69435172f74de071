#include "tests/panel/server_fixture.h"

#include <cstdlib>

namespace kolmo::testing
{

void PanelServer::SetUp()
{
    ASSERT_NE(std::getenv("KOLMO_SANDBOX"), nullptr) << "run this program in tools/sandbox";

    const std::string password = std::getenv("KOLMO_SANDBOX_PASSWORD");
    files.write_shadow(password + "\n");
    administrator_.reset(mysql_init(nullptr));
    ASSERT_NE(mysql_real_connect(administrator_.get(), "localhost", "admin", password.c_str(), "qsx", 0,
                                 std::getenv("KOLMO_SANDBOX_SOCKET"), CLIENT_MULTI_STATEMENTS),
              nullptr)
        << mysql_error(administrator_.get());
}

void PanelServer::TearDown()
{
    for (const std::string &line : log.take())
        EXPECT_EQ(line, files.missing_conf_line());
}

void PanelServer::run(const std::string &statements)
{
    MYSQL *const connection = administrator_.get();
    int rc = mysql_query(connection, statements.c_str());

    while (rc == 0)
        rc = mysql_next_result(connection);
    ASSERT_EQ(rc, -1) << mysql_error(connection) << "\n" << statements;
}

std::optional<std::string> PanelServer::answer(MYSQL *connection, const std::string &query)
{
    EXPECT_EQ(mysql_query(connection, query.c_str()), 0) << mysql_error(connection);
    const PanelResult result(mysql_store_result(connection));
    const MYSQL_ROW row = result != nullptr ? mysql_fetch_row(result.get()) : nullptr;

    return row != nullptr && row[0] != nullptr ? std::optional<std::string>(row[0]) : std::nullopt;
}

} // namespace kolmo::testing
