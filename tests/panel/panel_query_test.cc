#include "panel/panel_query.h"

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "panel/panel_credentials.h"
#include "tests/panel/fake_mysql.h"
#include "tests/panel/panel_files.h"
#include "tests/support/log_capture.h"
#include "tests/support/output_capture.h"

namespace kolmo
{

namespace
{

using testing::FakeMysql;
using testing::LogCapture;
using testing::Output;
using testing::output_of;
using testing::PanelFiles;

using Calls = std::vector<std::string>;

/* One of the lookups, the query that it sends and what it says when that or connecting fails. */
struct Lookup {
    const char *name;
    const char *(*call)(MYSQL *connection);
    const char *sent;
    const char *connect_report;
    const char *query_report;
};

constexpr const char *GENERIC_CONNECT = "Unable to connect to the mysql database\n";

constexpr Lookup lookups[] = {
    {"panel_query_value", [](MYSQL *connection) { return panel_query_value("select 1", connection, 0); },
     "query select 1", GENERIC_CONNECT, "Unable to query parameter by query select 1: the server's words\n"},
    {"panel_query_first_value",
     [](MYSQL *connection) { return panel_query_first_value("select 1", connection); }, "query select 1",
     GENERIC_CONNECT, "Unable to query parameter by query select 1: the server's words\n"},
    {"panel_query_param",
     [](MYSQL *connection) { return panel_query_param("key", "table", "names", "values", connection); },
     "query select values from table where names='key'", GENERIC_CONNECT,
     "Unable to query parameter by query select values from table where names='key': the server's words\n"},
    {"panel_misc_param", [](MYSQL *connection) { return panel_misc_param("FullHostName", connection); },
     "query select val from misc where param='FullHostName'", GENERIC_CONNECT,
     "Unable to query parameter by query select val from misc where param='FullHostName': "
     "the server's words\n"},
    {"panel_mail_server_setting",
     [](MYSQL *connection) { return panel_mail_server_setting("auto_reply_headers", connection); },
     "real_query select value from ServiceNodeConfiguration where name='auto_reply_headers' and "
     "serviceNodeId=1 and section='mailServer'",
     "Unable to connect to mysql database\n",
     "Unable to query domain parameter auto_reply_headers: the server's words\n"},
};

class PanelQueryBuffers : public ::testing::Test
{
protected:
    PanelQueryBuffers() { files.write_shadow("secret\n"); }
    ~PanelQueryBuffers() override
    {
        (void)log.take(); /* the missing configuration file's, when it connected */
    }

    PanelFiles files;
    LogCapture log;
    FakeMysql fake;
};

class PanelQuery : public PanelQueryBuffers, public ::testing::WithParamInterface<Lookup>
{
protected:
    static const char *look_up(MYSQL *connection) { return GetParam().call(connection); }

    /* What a lookup that is expected to fail tells the terminal. */
    static Output output_of_failing(MYSQL *connection)
    {
        const char *value = "";
        Output output = output_of([&] {
            errno = 0;
            value = look_up(connection);
        });
        EXPECT_EQ(value, nullptr);
        return output;
    }

    /* The calls without the ones that open a connection. */
    Calls calls_once_open() const
    {
        Calls calls = fake.calls();

        if (calls.size() >= 3 && calls[0] == "init")
            calls.erase(calls.begin(), calls.begin() + 3);
        return calls;
    }
};

INSTANTIATE_TEST_SUITE_P(EveryLookup, PanelQuery, ::testing::ValuesIn(lookups),
                         [](const auto &lookup) { return lookup.param.name; });

TEST_P(PanelQuery, OnACallersConnectionGivesTheValueAndLeavesItOpen)
{
    EXPECT_STREQ(look_up(fake.connection()), "value");
    EXPECT_EQ(fake.calls(), (Calls{GetParam().sent, "store", "fetch", "free"}));
    EXPECT_EQ(log.take(), Calls{});
}

TEST_P(PanelQuery, OnAConnectionOfItsOwnGivesTheValueAndClosesIt)
{
    EXPECT_STREQ(look_up(nullptr), "value");
    EXPECT_EQ(calls_once_open(), (Calls{GetParam().sent, "store", "fetch", "free", "close"}));
}

TEST_P(PanelQuery, NoRowGivesEmptyText)
{
    fake.has_row = false;
    (void)look_up(fake.connection());
    EXPECT_STREQ(look_up(nullptr), "");
    EXPECT_EQ(fake.calls().back(), "close");
}

TEST_P(PanelQuery, ANullColumnGivesEmptyText)
{
    EXPECT_STREQ(look_up(fake.connection()), "value");
    fake.row = {nullptr};
    EXPECT_STREQ(look_up(nullptr), "");
    EXPECT_EQ(fake.calls().back(), "close");
}

TEST_P(PanelQuery, AStatementWithoutAResultGivesEmptyText)
{
    fake.has_result = false;
    EXPECT_STREQ(look_up(nullptr), "");
    EXPECT_EQ(calls_once_open(), (Calls{GetParam().sent, "store", "close"}));
}

TEST_P(PanelQuery, RowsThatGetLostOnTheirWayAreAFailedQuery)
{
    fake.has_result = false;
    fake.errno_after_store = 2013;
    const Output output = output_of_failing(fake.connection());

    EXPECT_EQ(output.err, GetParam().query_report);
    EXPECT_EQ(output.out, GetParam().query_report);
    EXPECT_EQ(fake.calls(), (Calls{GetParam().sent, "store"}));
}

TEST_P(PanelQuery, AFailedQueryIsReportedAndLeavesACallersConnectionOpen)
{
    fake.query_fails = true;
    fake.errno_after_query = 1064;
    const Output output = output_of_failing(fake.connection());

    EXPECT_EQ(output.err, GetParam().query_report);
    EXPECT_EQ(output.out, GetParam().query_report);
    EXPECT_EQ(fake.calls(), Calls{GetParam().sent});
}

TEST_P(PanelQuery, AFailedQueryCarriesTheSystemErrorOnALineOfItsOwn)
{
    fake.query_fails = true;
    fake.errno_of_failures = EPIPE;
    const Output output = output_of_failing(fake.connection());

    EXPECT_EQ(output.err, std::string(GetParam().query_report) + "\nSystem error 32: Broken pipe\n");
}

TEST_P(PanelQuery, AFailedQueryClosesAConnectionOfItsOwn)
{
    files.write_dsn("[kolmo]\nhost = db1\n");
    fake.query_fails = true; /* SET NAMES too, which without an error number is let pass */
    const Output output = output_of_failing(nullptr);

    EXPECT_NE(output.err.find(GetParam().query_report), std::string::npos);
    EXPECT_EQ(calls_once_open(), (Calls{GetParam().sent, "close"}));
}

TEST_P(PanelQuery, WithoutAConnectionBothFailuresAreReported)
{
    fake.connect_fails = true;
    const Output output = output_of_failing(nullptr);

    EXPECT_EQ(output.err, "Unable to connect to Kolmo Database: the server's words\n" +
                              std::string(GetParam().connect_report));
    EXPECT_EQ(output.out, output.err);
    EXPECT_EQ(fake.calls().back(), "close");
}

TEST_P(PanelQuery, AValueOf5000BytesIsCutAt4095)
{
    const std::string longer(5000, 'v');

    fake.row = {longer.c_str()};
    EXPECT_EQ(look_up(fake.connection()), longer.substr(0, 4095));
}

TEST_P(PanelQuery, TheSecondCallOverwritesTheFirstResult)
{
    const char *const first = look_up(fake.connection());

    fake.row = {"other"};
    const char *const second = look_up(fake.connection());
    EXPECT_EQ(first, second);
    EXPECT_STREQ(first, "other");
}

TEST_F(PanelQueryBuffers, TheMailServerSettingHasABufferOfItsOwn)
{
    const char *const setting = panel_mail_server_setting("auto_reply_headers", fake.connection());

    fake.row = {"other"};
    EXPECT_STREQ(panel_misc_param("FullHostName", fake.connection()), "other");
    EXPECT_STREQ(setting, "value");
}

TEST_F(PanelQueryBuffers, TheOtherLookupsShareOne)
{
    const char *const parameter = panel_misc_param("FullHostName", fake.connection());

    EXPECT_EQ(panel_query_first_value("select 1", fake.connection()), parameter);
}

TEST_F(PanelQueryBuffers, AnyColumnOfTheRowCanBeAskedFor)
{
    fake.row = {"first", "second"};
    EXPECT_STREQ(panel_query_value("select 1, 2", fake.connection(), 1), "second");
}

TEST_F(PanelQueryBuffers, AColumnThatTheResultDoesNotHaveIsEmptyText)
{
    fake.row = {"first", "second"};
    for (const int column : {2, -1})
        EXPECT_STREQ(panel_query_value("select 1, 2", fake.connection(), column), "") << column;
}

TEST_F(PanelQueryBuffers, AQueryTextIsCutAt4095Bytes)
{
    const std::string key(5000, 'k');
    const std::string whole = "select val from misc where param='" + key + "'";

    (void)panel_misc_param(key.c_str(), fake.connection());
    EXPECT_EQ(fake.calls().at(0), "query " + whole.substr(0, 4095));
}

TEST_F(PanelQueryBuffers, ASettingsQueryTextIsCutAt4095Bytes)
{
    const std::string name(5000, 'n');
    const std::string whole = "select value from ServiceNodeConfiguration where name='" + name;

    (void)panel_mail_server_setting(name.c_str(), fake.connection());
    EXPECT_EQ(fake.calls().at(0), "real_query " + whole.substr(0, 4095));
}

} // namespace

} // namespace kolmo
