#include "panel/panel_db.h"

#include <cstdlib>
#include <string>
#include <vector>

#include <unistd.h>

#include "panel/panel_conf.h"
#include "panel/panel_credentials.h"
#include "tests/panel/fresh_process.h"
#include "tests/panel/server_fixture.h"
#include "tests/support/output_capture.h"

namespace kolmo::testing
{

namespace
{

class PanelDbServer : public PanelServer
{
protected:
    PanelConnection connect() { return PanelConnection(panel_db_connect_ex(error, sizeof error)); }

    /* Connects, expecting a failure, and gives its text. */
    std::string failure()
    {
        EXPECT_EQ(connect(), nullptr);
        return error;
    }

    char error[4097] = "";
};

TEST_F(PanelDbServer, WithoutADsnFileTheAdministratorIsConnectedToThePanelsDatabase)
{
    const PanelConnection connection = connect();

    ASSERT_NE(connection, nullptr) << error;
    EXPECT_EQ(answer(connection.get(), "select user()"), "admin@localhost");
    EXPECT_EQ(answer(connection.get(), "select database()"), "qsx");
    EXPECT_STREQ(error, "");
}

TEST_F(PanelDbServer, ThePanelsOwnFilesAreTheOnesReadByDefault)
{
    panel_conf_path = "/etc/qsx/qsx.conf";
    panel_dsn_path = "/etc/qsx/private/dsn.ini";
    panel_shadow_path = "/etc/qsx/.qsx.shadow";
    EXPECT_NE(connect(), nullptr) << error;
    EXPECT_EQ(log.take_one(), "12 unable to open configuration file /etc/qsx/qsx.conf: "
                              "No such file or directory\n");
}

TEST_F(PanelDbServer, TheConnectionsCharacterSetIsUtf8)
{
    const PanelConnection connection = connect();

    ASSERT_NE(connection, nullptr) << error;
    for (const char *variable : {"client", "connection", "results"})
        EXPECT_EQ(answer(connection.get(), std::string("select @@character_set_") + variable), "utf8mb3");
}

TEST_F(PanelDbServer, TheDsnFilesUserAndDatabaseAreTheOnesConnected)
{
    run("create database if not exists other_db; create or replace user panel@localhost identified by 'pw1';"
        "grant all on other_db.* to panel@localhost");
    files.write_dsn(
        "[kolmo]\nusername = panel\npassword = pw1 ; not the administrator's\ndbname = other_db\n");
    const PanelConnection connection = connect();

    ASSERT_NE(connection, nullptr) << error;
    EXPECT_EQ(answer(connection.get(), "select user()"), "panel@localhost");
    EXPECT_EQ(answer(connection.get(), "select database()"), "other_db");
    run("drop user panel@localhost; drop database other_db");
}

TEST_F(PanelDbServer, TheSocketIsTheConfigurationFiles)
{
    const std::string moved = files.conf_path() + ".sock";

    ASSERT_EQ(symlink(std::getenv("KOLMO_SANDBOX_SOCKET"), moved.c_str()), 0);
    files.write_conf("MYSQL_SOCKET " + moved + "\n");
    in_fresh_process([&] {
        EXPECT_NE(connect(), nullptr) << error;
        EXPECT_EQ(log.take(), std::vector<std::string>{});
    });
}

TEST_F(PanelDbServer, AWrongPasswordIsToldInTheServersWords)
{
    files.write_shadow("wrong\n");
    EXPECT_EQ(failure(), "Unable to connect to Kolmo Database: "
                         "Access denied for user 'admin'@'localhost' (using password: YES)");
}

TEST_F(PanelDbServer, ACarriageReturnIsPartOfThePassword)
{
    files.write_shadow(std::string(std::getenv("KOLMO_SANDBOX_PASSWORD")) + "\r\n");
    EXPECT_EQ(failure(), "Unable to connect to Kolmo Database: "
                         "Access denied for user 'admin'@'localhost' (using password: YES)");
}

TEST_F(PanelDbServer, AMissingDatabaseIsToldInTheServersWords)
{
    files.write_dsn("[kolmo]\ndbname = no_such_db\n");
    EXPECT_EQ(failure(), "Unable to connect to Kolmo Database: Unknown database 'no_such_db'");
}

TEST_F(PanelDbServer, AServerThatIsNotThereIsToldWithItsSocket)
{
    const std::string socket = files.conf_path() + ".nowhere";

    files.write_conf("MYSQL_SOCKET " + socket + "\n");
    in_fresh_process([&] {
        const std::string text = failure();
        EXPECT_EQ(text.find("Unable to connect to Kolmo Database: Can't connect to "), 0u) << text;
        EXPECT_NE(text.find(socket), std::string::npos) << text;
    });
}

TEST_F(PanelDbServer, TheReportingEntryTellsAFailureOnBothStreamsAndGoesOn)
{
    files.write_shadow("wrong\n");
    const std::string beginning = "Unable to connect to Kolmo Database: Access denied for user "
                                  "'admin'@'localhost' (using password: YES)\n";
    MYSQL *connection = nullptr;
    const Output output = output_of([&] { connection = panel_db_connect(); });

    EXPECT_EQ(connection, nullptr);
    /* What follows is the errno that the library left. */
    EXPECT_EQ(output.err.substr(0, beginning.size()), beginning);
    EXPECT_EQ(output.out, output.err);
}

TEST_F(PanelDbServer, SelectGivesTheRows)
{
    const PanelConnection connection = connect();
    const std::string sql = "select 'a' union select 'b'";

    ASSERT_NE(connection, nullptr) << error;
    const PanelResult result = panel_select(connection.get(), sql.c_str(), sql.size());
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(mysql_num_rows(result.get()), 2u);
    EXPECT_STREQ(mysql_fetch_row(result.get())[0], "a");
}

TEST_F(PanelDbServer, SelectGivesNullForABadQueryAndTheConnectionStaysGood)
{
    const PanelConnection connection = connect();

    ASSERT_NE(connection, nullptr) << error;
    EXPECT_EQ(panel_select(connection.get(), "selec", 5), nullptr);
    EXPECT_EQ(mysql_errno(connection.get()), 1064u);
    EXPECT_EQ(answer(connection.get(), "select 'still here'"), "still here");
}

} // namespace

} // namespace kolmo::testing
