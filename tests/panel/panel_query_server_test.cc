/* The lookups on a real server; tests/run has the one that the program itself makes. */
#include "panel/panel_query.h"

#include <cstddef>
#include <filesystem>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "panel/panel_db.h"
#include "tests/panel/panel_files.h"
#include "tests/support/log_capture.h"
#include "tests/support/output_capture.h"
#include "tests/support/panel_database.h"
#include "tests/support/sandbox.h"

namespace kolmo::testing
{

namespace
{

/* Descriptors that this process has open: an own connection that stays open would be one more. */
std::ptrdiff_t open_descriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

/* The password file alone, so that the default credentials are the sandbox administrator's. */
class PanelQueryServer : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(in_sandbox()) << "run this in tools/sandbox";
        files.write_shadow(sandbox_variable("KOLMO_SANDBOX_PASSWORD") + "\n");
        panel.reset();
        panel.execute("INSERT INTO misc VALUES ('FullHostName', 'mail.example.com'), ('name', 'J\u00f6rg')");
        connection.reset(panel_db_connect());
        ASSERT_NE(connection, nullptr);
    }

    /* What the missing configuration file makes the socket's lookup log. */
    void TearDown() override
    {
        for (const std::string &line : log.take())
            EXPECT_EQ(line, files.missing_conf_line());
    }

    PanelFiles files;
    LogCapture log;
    PanelDatabase panel;
    PanelConnection connection;
};

TEST_F(PanelQueryServer, MiscParameterIsReadInUtf8AndAMissingOneIsEmptyText)
{
    EXPECT_STREQ(panel_misc_param("FullHostName", connection.get()), "mail.example.com");
    EXPECT_STREQ(panel_misc_param("name", connection.get()), "J\u00f6rg");
    EXPECT_STREQ(panel_misc_param("Fullhost", connection.get()), "");
}

TEST_F(PanelQueryServer, FirstOfSeveralRowsCounts)
{
    EXPECT_STREQ(panel_query_value("select 'a', 'b' union select 'c', 'd'", connection.get(), 1), "b");
}

TEST_F(PanelQueryServer, StatementWithoutRowsGivesEmptyTextAndTheConnectionStaysGood)
{
    EXPECT_STREQ(panel_query_first_value("insert into misc values ('a', 'b')", connection.get()), "");
    EXPECT_STREQ(panel_misc_param("a", connection.get()), "b");
}

TEST_F(PanelQueryServer, FailedQueryIsReportedAndTheConnectionStaysGood)
{
    panel.execute("DROP TABLE misc");
    const char *value = "";
    const Output output = output_of([&] { value = panel_misc_param("x", connection.get()); });

    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(output.err.find("Unable to query parameter by query select val from misc where param='x': "
                              "Table 'qsx.misc' doesn't exist\n"),
              0U)
        << output.err;
    EXPECT_STREQ(panel_query_first_value("select 'still here'", connection.get()), "still here");
}

TEST_F(PanelQueryServer, OwnConnectionsAreClosedOnEveryPath)
{
    const std::ptrdiff_t before = open_descriptors();

    EXPECT_STREQ(panel_misc_param("FullHostName", nullptr), "mail.example.com");
    EXPECT_STREQ(panel_mail_server_setting("auto_reply_headers", nullptr), "");
    const char *value = "";
    (void)output_of([&] { value = panel_query_first_value("selec", nullptr); });
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(open_descriptors(), before);
}

} // namespace

} // namespace kolmo::testing
