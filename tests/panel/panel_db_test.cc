#include "panel/panel_db.h"

#include <cerrno>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "panel/panel_credentials.h"
#include "tests/panel/fake_mysql.h"
#include "tests/panel/fresh_process.h"
#include "tests/panel/panel_files.h"
#include "tests/support/log_capture.h"
#include "tests/support/output_capture.h"

namespace kolmo::testing
{

namespace
{

using Calls = std::vector<std::string>;

constexpr const char *DEFAULT_CONNECT = "connect localhost admin secret qsx 0 /var/run/mysqld/mysqld.sock 0";
constexpr const char *SET_NAMES = "query SET NAMES utf8";

/* The default credentials, and no configuration file: looking for the socket logs that each time. */
class PanelDb : public ::testing::Test
{
protected:
    PanelDb() { files.write_shadow("secret\n"); }

    MYSQL *connect()
    {
        MYSQL *const connection = panel_db_connect_ex(error, sizeof error);
        EXPECT_EQ(log.take(), socket_was_looked_up ? Calls{files.missing_conf_line()} : Calls{});
        return connection;
    }

    /* What panel_db_connect, expected to fail, tells the terminal. */
    Output output_of_connecting()
    {
        MYSQL *connection = fake.connection();
        Output output = output_of([&] {
            errno = 0;
            connection = panel_db_connect();
        });
        EXPECT_EQ(connection, nullptr);
        (void)log.take();
        return output;
    }

    PanelFiles files;
    LogCapture log;
    FakeMysql fake;
    bool socket_was_looked_up = true;
    char error[200] = "untouched";
};

TEST_F(PanelDb, ConnectsWithTheDefaultsAndSetsTheCharacterSet)
{
    EXPECT_EQ(connect(), fake.connection());
    EXPECT_EQ(fake.calls(), (Calls{"init", DEFAULT_CONNECT, SET_NAMES}));
    EXPECT_STREQ(error, "untouched");
}

TEST_F(PanelDb, ConnectsWithWhatTheDsnFileGives)
{
    files.write_dsn("[kolmo]\nhost=db1\nport=3307abc\nusername=panel\npassword=pw1\ndbname=panel_db\n");
    EXPECT_EQ(connect(), fake.connection());
    EXPECT_EQ(fake.calls().at(1), "connect db1 panel pw1 panel_db 3307 /var/run/mysqld/mysqld.sock 0");
}

TEST_F(PanelDb, AnEmptyPortIsTheLibrarysDefault)
{
    files.write_dsn("[kolmo]\nport =\n");
    EXPECT_EQ(connect(), fake.connection());
    EXPECT_EQ(fake.calls().at(1), DEFAULT_CONNECT);
}

TEST_F(PanelDb, TheSocketIsTheConfigurationFiles)
{
    files.write_conf("MYSQL_SOCKET /tmp/my.sock\n");
    in_fresh_process([&] {
        socket_was_looked_up = false; /* found, so nothing is logged */
        EXPECT_EQ(connect(), fake.connection());
        EXPECT_EQ(fake.calls().at(1), "connect localhost admin secret qsx 0 /tmp/my.sock 0");
    });
}

TEST_F(PanelDb, WithoutAPasswordTheLibraryIsNotTouched)
{
    panel_shadow_path = "/nonexistent/qsx.shadow";
    socket_was_looked_up = false;
    EXPECT_EQ(connect(), nullptr);
    EXPECT_EQ(fake.calls(), Calls{});
    EXPECT_STREQ(error, "Unable to open admin password file: No such file or directory");
}

TEST_F(PanelDb, NoHandleIsToldAsNoMemory)
{
    fake.init_fails = true;
    socket_was_looked_up = false;
    EXPECT_EQ(connect(), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(fake.calls(), Calls{"init"});
    EXPECT_STREQ(error, "Unable to initialize MySQL connection structure: Cannot allocate memory");
}

TEST_F(PanelDb, ARefusedConnectionIsClosedAndToldInTheServersWords)
{
    fake.connect_fails = true;
    EXPECT_EQ(connect(), nullptr);
    EXPECT_EQ(fake.calls(), (Calls{"init", DEFAULT_CONNECT, "close"}));
    EXPECT_STREQ(error, "Unable to connect to Kolmo Database: the server's words");
}

TEST_F(PanelDb, ClosingKeepsTheErrnoOfTheRefusal)
{
    fake.connect_fails = true;
    fake.errno_of_failures = ECONNREFUSED;
    fake.errno_of_release = EBADF;
    (void)connect();
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_F(PanelDb, AHandleThatCarriesAnErrorNumberIsClosedWithoutAText)
{
    fake.errno_after_connect = 1234;
    EXPECT_EQ(connect(), nullptr);
    EXPECT_EQ(fake.calls(), (Calls{"init", DEFAULT_CONNECT, "close"}));
    EXPECT_STREQ(error, "untouched");
}

TEST_F(PanelDb, SetNamesThatFailsWithANumberClosesTheHandle)
{
    fake.query_fails = true;
    fake.errno_after_query = 2013;
    EXPECT_EQ(connect(), nullptr);
    EXPECT_EQ(fake.calls(), (Calls{"init", DEFAULT_CONNECT, SET_NAMES, "close"}));
    EXPECT_STREQ(error, "DB error (set names query) 2013: the server's words");
}

TEST_F(PanelDb, SetNamesThatFailsWithoutANumberKeepsTheHandleAndLeavesAText)
{
    fake.query_fails = true;
    EXPECT_EQ(connect(), fake.connection());
    EXPECT_EQ(fake.calls(), (Calls{"init", DEFAULT_CONNECT, SET_NAMES}));
    EXPECT_STREQ(error, "DB error (set names query): unknown error");
}

TEST_F(PanelDb, SetNamesThatWorksButLeavesANumberClosesTheHandleWithoutAText)
{
    fake.errno_after_query = 1;
    EXPECT_EQ(connect(), nullptr);
    EXPECT_EQ(fake.calls().back(), "close");
    EXPECT_STREQ(error, "untouched");
}

TEST_F(PanelDb, ATextIsCutToTheBuffer)
{
    fake.connect_fails = true;
    EXPECT_EQ(panel_db_connect_ex(error, 18), nullptr);
    EXPECT_STREQ(error, "Unable to connect");
    (void)log.take();
}

TEST_F(PanelDb, TheReportingEntryGivesAConnectionQuietly)
{
    MYSQL *connection = nullptr;
    const Output output = output_of([&] { connection = panel_db_connect(); });

    EXPECT_EQ(connection, fake.connection());
    EXPECT_EQ(output.err, "");
    EXPECT_EQ(output.out, "");
    EXPECT_EQ(log.take_one(), files.missing_conf_line());
}

TEST_F(PanelDb, TheReportingEntryTellsAFailureOnBothStreams)
{
    fake.connect_fails = true;
    const Output output = output_of_connecting();

    EXPECT_EQ(output.err, "Unable to connect to Kolmo Database: the server's words\n");
    EXPECT_EQ(output.out, output.err);
}

TEST_F(PanelDb, AReportCarriesTheSystemErrorOfTheFailure)
{
    fake.connect_fails = true;
    fake.errno_of_failures = ECONNREFUSED;
    fake.errno_of_release = EBADF;
    EXPECT_EQ(output_of_connecting().err, "Unable to connect to Kolmo Database: the server's words\n"
                                          "System error 111: Connection refused\n");
}

TEST_F(PanelDb, PercentSignsInAReportAreText)
{
    fake.connect_fails = true;
    fake.error = "100%s";
    EXPECT_EQ(output_of_connecting().err, "Unable to connect to Kolmo Database: 100%s\n");
}

TEST_F(PanelDb, AHandleThatCarriesAnErrorNumberIsReportedAsAnEmptyMessage)
{
    files.write_dsn(""); /* found, so that errno stays 0 */
    fake.errno_after_connect = 1234;
    /* The socket's lookup leaves its errno. */
    EXPECT_EQ(output_of_connecting().err, "\nSystem error 2: No such file or directory\n");
}

TEST_F(PanelDb, AReportHolds4096BytesOfAText)
{
    fake.connect_fails = true;
    fake.error = std::string(5000, 'x');
    const std::string beginning = "Unable to connect to Kolmo Database: ";

    EXPECT_EQ(output_of_connecting().err, beginning + std::string(4096 - beginning.size(), 'x') + '\n');
}

TEST_F(PanelDb, SelectSendsTheBytesItIsGivenAndStoresTheResult)
{
    const char sql[] = "SELECT 1\0 and more";

    const PanelResult result = panel_select(fake.connection(), sql, 9);
    EXPECT_NE(result, nullptr);
    EXPECT_EQ(fake.calls(), (Calls{"real_query " + std::string(sql, 9), "store"}));
}

TEST_F(PanelDb, SelectFreesTheResultWithItsOwner)
{
    (void)panel_select(fake.connection(), "SELECT 1", 8);
    EXPECT_EQ(fake.calls().back(), "free");
}

TEST_F(PanelDb, FreeingAResultKeepsErrno)
{
    PanelResult result = panel_select(fake.connection(), "SELECT 1", 8);

    fake.errno_of_release = EBADF;
    errno = ENOMEM;
    result.reset();
    EXPECT_EQ(errno, ENOMEM);
}

TEST_F(PanelDb, SelectGivesNullWhenTheQueryFails)
{
    fake.query_fails = true;
    EXPECT_EQ(panel_select(fake.connection(), "SELECT 1", 8), nullptr);
    EXPECT_EQ(fake.calls(), Calls{"real_query SELECT 1"});
}

TEST_F(PanelDb, SelectGivesNullWhenTheResultCannotBeStored)
{
    fake.has_result = false;
    EXPECT_EQ(panel_select(fake.connection(), "SELECT 1", 8), nullptr);
    EXPECT_EQ(fake.calls(), (Calls{"real_query SELECT 1", "store"}));
}

TEST(PanelText, ANullColumnReadsAsEmptyText)
{
    EXPECT_STREQ(panel_text(nullptr), "");
    EXPECT_STREQ(panel_text("text"), "text");
}

} // namespace

} // namespace kolmo::testing
