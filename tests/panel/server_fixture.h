/*
 * server_fixture: tests on the sandbox's database server.
 *
 * The panel's files lead into the test's folder, which has the shadow file only: the default credentials
 * are the ones of the sandbox's administrator.  Outside of the sandbox every such test fails before it
 * has touched anything.
 */
#ifndef KOLMO_TESTS_PANEL_SERVER_FIXTURE_H
#define KOLMO_TESTS_PANEL_SERVER_FIXTURE_H

#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "panel/panel_db.h"
#include "tests/panel/panel_files.h"
#include "tests/support/log_capture.h"

namespace kolmo::testing
{

class PanelServer : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    /* Statements on a connection that the code under test has no part in, ended by semicolons. */
    void run(const std::string &statements);

    /* The first column of the first row of a query on a connection; nothing for NULL or no row. */
    static std::optional<std::string> answer(MYSQL *connection, const std::string &query);

    PanelFiles files;
    LogCapture log; /* TearDown takes what the missing configuration file makes the socket's lookup log */

private:
    PanelConnection administrator_;
};

} // namespace kolmo::testing

#endif
