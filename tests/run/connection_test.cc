/*
 * The way to the panel's database: the configuration file, the DSN and password files, the server.
 */
#include "tests/run/run_fixture.h"

#include <filesystem>

#include "tests/support/sandbox.h"
#include "tests/support/unix_socket.h"

namespace kolmo::testing
{

namespace
{

const std::string given_up = "Unable to connect to mysql server";
const std::string refused = "Unable to connect to Kolmo Database: ";

class ConnectionRun : public RunTest
{
protected:
    void SetUp() override
    {
        RunTest::SetUp();
        (void)add_simple_domain("one.example");
    }

    /* The domain comes out: the program has found its database. */
    void expect_rebuilt()
    {
        expect_run(0);
        expect_responders({reply_row("info@one.example")});
        expect_handlers({handler_row("info@one.example")});
    }

    /* The store was made anew and is closed again, and that was all. */
    void expect_refused(const std::string &text) { expect_refused_with(reported_with_errno(refused + text)); }

    void expect_refused_with(const Said &message)
    {
        expect_run(255, {message, logged(given_up)});
        expect_responders({});
        expect_handlers({});
    }
};

std::string with_admin_password(const std::string &lines)
{
    return "[kolmo]\npassword = " + sandbox_variable("KOLMO_SANDBOX_PASSWORD") + "\n" + lines;
}

std::string unreachable(const std::string &socket, int error)
{
    return "Can't connect to local server through socket '" + socket + "' (" + std::to_string(error) + ")";
}

/* A socket that nobody listens on any more. */
void leave_dead_socket(const std::string &path)
{
    (void)listen_at(path);
}

} // namespace

/* --- the password file -------------------------------------------------------------------------------- */

TEST_F(ConnectionRun, NoDsnFileMeansLocalhostAdminAndTheFirstLineOfThePasswordFile)
{
    ASSERT_FALSE(std::filesystem::exists(dsn_path));
    expect_rebuilt();
}

TEST_F(ConnectionRun, PasswordFileWithoutANewlineIsTakenWhole)
{
    write_file(shadow_path, sandbox_variable("KOLMO_SANDBOX_PASSWORD"));
    expect_rebuilt();
}

TEST_F(ConnectionRun, SecondLineOfThePasswordFileIsIgnored)
{
    write_file(shadow_path, sandbox_variable("KOLMO_SANDBOX_PASSWORD") + "\nold-password\n");
    expect_rebuilt();
}

TEST_F(ConnectionRun, WrongPasswordIsRefused)
{
    write_file(shadow_path, "wrong\n");
    expect_refused("Access denied for user 'admin'@'localhost' (using password: YES)");
}

/* Only the newline goes: what stands before it is part of the password. */
TEST_F(ConnectionRun, BlankAfterThePasswordIsPartOfIt)
{
    write_file(shadow_path, sandbox_variable("KOLMO_SANDBOX_PASSWORD") + " \n");
    expect_refused("Access denied for user 'admin'@'localhost' (using password: YES)");
}

TEST_F(ConnectionRun, MissingPasswordFileEndsTheRun)
{
    std::filesystem::remove(shadow_path);
    expect_refused_with(reported("Unable to open admin password file: No such file or directory\n"
                                 "System error 2: No such file or directory"));
}

TEST_F(ConnectionRun, EmptyPasswordFileEndsTheRun)
{
    write_file(shadow_path, "");
    write_file(dsn_path, "[kolmo]\n"); /* or its absence would still stand in errno */
    expect_refused_with(reported("Unable to read admin password file: Success"));
}

TEST_F(ConnectionRun, FolderInThePasswordFilesPlaceEndsTheRun)
{
    std::filesystem::remove(shadow_path);
    std::filesystem::create_directory(shadow_path);
    expect_refused_with(
        reported("Unable to read admin password file: Is a directory\nSystem error 21: Is a directory"));
}

/* --- the DSN file ------------------------------------------------------------------------------------- */

TEST_F(ConnectionRun, PasswordInTheDsnFileMakesThePasswordFileSuperfluous)
{
    std::filesystem::remove(shadow_path);
    write_file(dsn_path, with_admin_password(""));
    expect_rebuilt();
}

TEST_F(ConnectionRun, PasswordInTheDsnFileWinsOverThePasswordFile)
{
    write_file(dsn_path, "[kolmo]\npassword = wrong\n");
    expect_refused("Access denied for user 'admin'@'localhost' (using password: YES)");
}

TEST_F(ConnectionRun, EmptyPasswordInTheDsnFileIsAPassword)
{
    write_file(dsn_path, "[kolmo]\npassword =\n");
    expect_refused("Access denied for user 'admin'@'localhost' (using password: NO)");
}

TEST_F(ConnectionRun, CommentAfterAValueOfTheDsnFileIsNoPartOfIt)
{
    write_file(dsn_path, "; of the panel\n[kolmo]\n  password = " +
                             sandbox_variable("KOLMO_SANDBOX_PASSWORD") + " ; changed in spring\n");
    expect_rebuilt();
}

TEST_F(ConnectionRun, OtherSectionsOfTheDsnFileAreIgnored)
{
    write_file(dsn_path,
               "password = wrong\n[other]\npassword = wrong\nhost = nowhere\n[Kolmo]\nusername = who\n");
    expect_rebuilt();
}

TEST_F(ConnectionRun, PortWithTextBehindItAndAnEmptyPortDoNotHarmALocalConnection)
{
    for (const char *port : {"3307abc", ""}) {
        write_file(dsn_path, std::string("[kolmo]\nport = ") + port + "\n");
        expect_rebuilt();
    }
}

TEST_F(ConnectionRun, FolderInTheDsnFilesPlaceLeavesTheDefaults)
{
    std::filesystem::create_directory(dsn_path);
    expect_rebuilt();
}

TEST_F(ConnectionRun, UserAndDatabaseOfTheDsnFileAreTaken)
{
    panel->execute("CREATE OR REPLACE USER 'reader'@'localhost' IDENTIFIED BY 'pw;1'; "
                   "GRANT SELECT ON other.* TO 'reader'@'localhost'");
    panel->reset("other");
    (void)add_simple_domain("other.example");
    write_file(shadow_path, "pw;1\n");
    write_file(dsn_path, "[kolmo]\nusername = reader\ndbname = other\n");

    expect_run(0);
    expect_responders({reply_row("info@other.example")});
    panel->execute("DROP USER 'reader'@'localhost'; DROP DATABASE other");
}

TEST_F(ConnectionRun, MissingDatabaseIsRefused)
{
    write_file(dsn_path, "[kolmo]\ndbname = nothere\n");
    expect_refused("Unknown database 'nothere'");
}

TEST_F(ConnectionRun, HostOfTheDsnFileIsTaken)
{
    write_file(dsn_path, "[kolmo]\nhost = 127.0.0.1\nport = 1\n");

    const ProgramResult result = run();

    EXPECT_EQ(result.status, 255);
    EXPECT_EQ(result.out.find(refused + "Can't connect to server on '127.0.0.1' ("), 0U) << result.out;
    EXPECT_EQ(syslog->take().size(), 1U);
}

/* --- the server and its socket ------------------------------------------------------------------------ */

TEST_F(ConnectionRun, MissingSocketEndsTheRun)
{
    move_socket("/run/mysqld/away.sock");
    expect_refused(unreachable("/var/run/mysqld/mysqld.sock", 2));
}

TEST_F(ConnectionRun, ServerThatIsDownEndsTheRun)
{
    move_socket("/run/mysqld/away.sock");
    leave_dead_socket(server_socket);
    expect_refused(unreachable("/var/run/mysqld/mysqld.sock", 111));
}

TEST_F(ConnectionRun, ConfigurationFileNamesTheSocket)
{
    move_socket("/run/mysqld/away.sock");
    write_file(conf_path, "MYSQL_SOCKET /run/mysqld/away.sock\n");
    expect_rebuilt();
}

TEST_F(ConnectionRun, ConfiguredSocketMayBeASymbolicLink)
{
    move_socket("/run/mysqld/away.sock");
    std::filesystem::create_symlink("/run/mysqld/away.sock", "/run/mysqld/link.sock");
    write_file(conf_path, "MYSQL_SOCKET\t/run/mysqld/link.sock # until the disk is back\n");
    expect_rebuilt();
    std::filesystem::remove("/run/mysqld/link.sock");
}

TEST_F(ConnectionRun, SecondDefinitionOfTheSocketWins)
{
    move_socket("/run/mysqld/away.sock");
    write_file(conf_path, "MYSQL_SOCKET /nowhere.sock\nMYSQL_SOCKET /run/mysqld/away.sock\n");
    expect_rebuilt();
}

/* A single blank at the end is no comment's neighbour: it stays, and the newline with it. */
TEST_F(ConnectionRun, SocketWithABlankBehindItIsAnotherSocket)
{
    write_file(conf_path, "MYSQL_SOCKET /run/mysqld/mysqld.sock \n");
    expect_refused(unreachable("/run/mysqld/mysqld.sock \n", 2));
}

/* What the reader says of the broken lines is a warning, and warnings are masked. */
TEST_F(ConnectionRun, BrokenLinesOfTheConfigurationFileAreSkippedInSilence)
{
    move_socket("/run/mysqld/away.sock");
    write_file(conf_path, "# sockets\n\nMYSQL_SOCKET=/nowhere.sock\nMYSQL_SOCKET\n= 5\nMYSQL_SOCKET # none\n"
                          "  MYSQL_SOCKET /run/mysqld/away.sock\nMYSQL_SOCKET=/nowhere.sock\n");
    expect_rebuilt();
}

TEST_F(ConnectionRun, ConfigurationFileThatCannotBeReadLeavesTheDefault)
{
    std::filesystem::create_directory(conf_path);
    expect_rebuilt();
}

TEST_F(ConnectionRun, ConfigurationFileWithoutTheSocketLeavesTheDefault)
{
    write_file(conf_path, "MYSQL_VAR_D /var/lib/mysql\n");
    expect_rebuilt();
}

} // namespace kolmo::testing
