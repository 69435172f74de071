/*
 * fake_mysql: the database's client library replaced as a whole.
 *
 * For test programs that wrap its calls (-Wl,--wrap=).  Every call is noted, in words, and answered as
 * the test has set it; while no FakeMysql lives, no call is expected.  One server, one connection, one
 * result.
 */
#pragma once

#include <string>
#include <vector>

#include <mysql.h>

namespace kolmo::testing
{

class FakeMysql
{
public:
    FakeMysql();
    ~FakeMysql();
    FakeMysql(const FakeMysql &) = delete;
    FakeMysql &operator=(const FakeMysql &) = delete;

    /* A connection for a test that passes its own; it is not noted as opened. */
    [[nodiscard]] MYSQL *connection() { return &handle_; }

    /* The calls so far, in order, without the ones that only ask for the error. */
    [[nodiscard]] const std::vector<std::string> &calls() const { return calls_; }

    /* What the library answers. */
    bool init_fails = false;
    bool connect_fails = false;
    bool query_fails = false;
    bool has_result = true;
    bool has_row = true;
    std::vector<const char *> row = {"value"};
    std::string error = "the server's words";
    unsigned int errno_after_connect = 0;
    unsigned int errno_after_query = 0;
    unsigned int errno_after_store = 0;

    /* What errno is after the calls that fail, and after those that release something. */
    int errno_of_failures = 0;
    int errno_of_release = 0;

private:
    friend struct FakeMysqlCalls;

    MYSQL handle_{};
    MYSQL_RES result_{};
    unsigned int number_ = 0;
    std::vector<std::string> calls_;
};

} // namespace kolmo::testing
