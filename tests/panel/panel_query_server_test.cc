#include "panel/panel_query.h"

#include <cstddef>
#include <filesystem>
#include <iterator>
#include <string>

#include "tests/panel/server_fixture.h"
#include "tests/support/output_capture.h"

namespace kolmo::testing
{

namespace
{

/* Descriptors that this process has open: an own connection that stays open would be one more. */
std::ptrdiff_t open_descriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

class PanelQueryServer : public PanelServer
{
protected:
    void SetUp() override
    {
        PanelServer::SetUp();
        if (HasFatalFailure())
            return;
        run("create or replace table misc (param varchar(255) primary key, val longtext);"
            "create or replace table ServiceNodeConfiguration (serviceNodeId int, section varchar(255),"
            " name varchar(255), value longtext)");
        connection.reset(panel_db_connect());
        ASSERT_NE(connection, nullptr);
    }

    void add_setting(const std::string &name, const std::string &value_expression)
    {
        run("insert into ServiceNodeConfiguration values (1, 'mailServer', '" + name + "', " +
            value_expression + ")");
    }

    const char *setting() { return panel_mail_server_setting("auto_reply_headers", connection.get()); }

    PanelConnection connection;
};

TEST_F(PanelQueryServer, AMailServerSettingIsRead)
{
    add_setting("auto_reply_headers", "'{\"X-Auto\": \"yes\"}'");
    EXPECT_STREQ(setting(), "{\"X-Auto\": \"yes\"}");
}

TEST_F(PanelQueryServer, OnlyTheMailServersSettingOnThePanelsOwnNodeCounts)
{
    run("insert into ServiceNodeConfiguration values (2, 'mailServer', 'auto_reply_headers', 'other node'),"
        " (1, 'webServer', 'auto_reply_headers', 'other section')");
    EXPECT_STREQ(setting(), "");
    add_setting("other_setting", "'other'");
    add_setting("auto_reply_headers", "'right'");
    EXPECT_STREQ(setting(), "right");
}

TEST_F(PanelQueryServer, ASettingThatIsNullIsEmptyText)
{
    add_setting("auto_reply_headers", "null");
    EXPECT_STREQ(setting(), "");
}

TEST_F(PanelQueryServer, ASettingOf5000BytesIsCutAt4095)
{
    add_setting("auto_reply_headers", "concat(repeat('a', 4095), repeat('b', 905))");
    EXPECT_EQ(setting(), std::string(4095, 'a'));
}

TEST_F(PanelQueryServer, AMiscParameterIsRead)
{
    run("insert into misc values ('FullHostName', 'mail.example.com'), ('other', 'x')");
    EXPECT_STREQ(panel_misc_param("FullHostName", connection.get()), "mail.example.com");
}

TEST_F(PanelQueryServer, AMiscParameterThatIsNotThereIsEmptyText)
{
    EXPECT_STREQ(panel_misc_param("FullHostName", connection.get()), "");
}

TEST_F(PanelQueryServer, TextComesInUtf8)
{
    run("insert into misc values ('name', convert(0xC3A4 using utf8mb4))");
    EXPECT_STREQ(panel_misc_param("name", connection.get()), "\xC3\xA4");
}

TEST_F(PanelQueryServer, TheFirstOfSeveralRowsCounts)
{
    EXPECT_STREQ(panel_query_value("select 'a', 'b' union select 'c', 'd'", connection.get(), 1), "b");
}

TEST_F(PanelQueryServer, ACallersConnectionStaysOpenAfterSuccess)
{
    EXPECT_STREQ(panel_query_first_value("select 'a'", connection.get()), "a");
    EXPECT_STREQ(setting(), "");
    EXPECT_EQ(answer(connection.get(), "select 'still here'"), "still here");
}

TEST_F(PanelQueryServer, ACallersConnectionStaysOpenAfterFailure)
{
    run("drop table misc, ServiceNodeConfiguration");
    bool both_failed = false;
    const Output output = output_of(
        [&] { both_failed = panel_misc_param("x", connection.get()) == nullptr && setting() == nullptr; });

    EXPECT_TRUE(both_failed);
    /* A system error line follows each, with the errno that the library left. */
    EXPECT_NE(output.err.find("Unable to query parameter by query select val from misc where param='x': "
                              "Table 'qsx.misc' doesn't exist\n"),
              std::string::npos);
    EXPECT_NE(output.err.find("Unable to query domain parameter auto_reply_headers: "
                              "Table 'qsx.ServiceNodeConfiguration' doesn't exist\n"),
              std::string::npos);
    EXPECT_EQ(answer(connection.get(), "select 'still here'"), "still here");
}

TEST_F(PanelQueryServer, AStatementWithoutRowsGivesEmptyTextAndTheConnectionStaysGood)
{
    EXPECT_STREQ(panel_query_first_value("insert into misc values ('a', 'b')", connection.get()), "");
    EXPECT_STREQ(panel_misc_param("a", connection.get()), "b");
}

TEST_F(PanelQueryServer, OwnConnectionsAreClosedOnEveryPath)
{
    add_setting("auto_reply_headers", "'right'");
    const std::ptrdiff_t before = open_descriptors();

    EXPECT_STREQ(panel_mail_server_setting("auto_reply_headers", nullptr), "right");
    EXPECT_STREQ(panel_misc_param("nothing", nullptr), "");
    const char *value = "";
    (void)output_of([&] { value = panel_query_first_value("selec", nullptr); });
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(PanelQueryServer, WithoutAConnectionNothingIsReadAndBothFailuresAreReported)
{
    files.write_shadow("wrong\n");
    const char *value = "";
    const Output output = output_of([&] { value = panel_misc_param("x", nullptr); });

    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(output.err.find("Unable to connect to Kolmo Database: Access denied"), 0u);
    EXPECT_NE(output.err.find("\nUnable to connect to the mysql database\n"), std::string::npos);
}

} // namespace

} // namespace kolmo::testing
