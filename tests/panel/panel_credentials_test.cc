#include "panel/panel_credentials.h"

#include <cerrno>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include <stdio_ext.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "tests/panel/panel_files.h"
#include "tests/support/alloc_faults.h"
#include "tests/support/log_capture.h"

namespace
{

/* What passed the seams below since the last test began, and what they fail. */
std::vector<std::string> wiped_texts;
std::function<void(const std::string &)> before_stat;
std::string failing_stat_path;
std::size_t stream_buffer_size;

} // namespace

extern "C" {

int __real_stat(const char *path, struct stat *status);
char *__real_fgets(char *text, int size, std::FILE *stream);
void __real_explicit_bzero(void *memory, std::size_t length);

int __wrap_stat(const char *path, struct stat *status)
{
    if (before_stat)
        before_stat(path);
    if (path != failing_stat_path)
        return __real_stat(path, status);
    errno = EACCES;
    return -1;
}

char *__wrap_fgets(char *text, int size, std::FILE *stream)
{
    char *const line = __real_fgets(text, size, stream);
    stream_buffer_size = __fbufsize(stream);
    return line;
}

void __wrap_explicit_bzero(void *memory, std::size_t length)
{
    wiped_texts.emplace_back(static_cast<const char *>(memory), length);
    __real_explicit_bzero(memory, length);
}

/* The same in an optimised program. */
void __wrap___explicit_bzero_chk(void *memory, std::size_t length, std::size_t)
{
    __wrap_explicit_bzero(memory, length);
}

} // extern "C"

namespace kolmo::testing
{

namespace
{

class PanelCredentialsRead : public ::testing::Test
{
protected:
    PanelCredentialsRead() { wiped_texts.clear(); }
    ~PanelCredentialsRead() override
    {
        failing_stat_path.clear();
        before_stat = {};
    }

    int read(std::size_t buffer_size = sizeof(error))
    {
        return panel_read_credentials(&credentials, error, buffer_size);
    }

    /* The password that a shadow file of this content gives. */
    std::string password_of(const std::string &shadow)
    {
        PanelCredentials read_here;
        files.write_shadow(shadow);
        EXPECT_EQ(panel_read_credentials(&read_here, error, sizeof error), 0) << error;
        return read_here.password != nullptr ? read_here.password.get() : "(none)";
    }

    /* Reads, expecting a failure, and gives its text. */
    std::string failure()
    {
        EXPECT_EQ(read(), -1);
        return error;
    }

    PanelFiles files;
    LogCapture log;
    PanelCredentials credentials;
    char error[200] = "untouched";
};

TEST(PanelCredentialsPaths, TheFilesAreThePanels)
{
    EXPECT_STREQ(panel_dsn_path, "/etc/qsx/private/dsn.ini");
    EXPECT_STREQ(panel_shadow_path, "/etc/qsx/.qsx.shadow");
}

TEST_F(PanelCredentialsRead, WithoutADsnFileEveryDefaultApplies)
{
    files.write_shadow("secret\n");
    ASSERT_EQ(read(), 0);
    EXPECT_STREQ(credentials.host.get(), "localhost");
    EXPECT_EQ(credentials.port, 0u);
    EXPECT_STREQ(credentials.user.get(), "admin");
    EXPECT_STREQ(credentials.password.get(), "secret");
    EXPECT_STREQ(credentials.database.get(), "qsx");
    EXPECT_STREQ(error, "untouched");
}

TEST_F(PanelCredentialsRead, TheDsnFileMayGiveEverything)
{
    files.write_dsn(
        "[kolmo]\nhost = db1\nport = 3307\nusername = panel\npassword = pw1\ndbname = panel_db\n");
    ASSERT_EQ(read(), 0);
    EXPECT_STREQ(credentials.host.get(), "db1");
    EXPECT_EQ(credentials.port, 3307u);
    EXPECT_STREQ(credentials.user.get(), "panel");
    EXPECT_STREQ(credentials.password.get(), "pw1");
    EXPECT_STREQ(credentials.database.get(), "panel_db");
    EXPECT_STREQ(error, "untouched");
}

/* Every value says by which reading of the file it was found. */
TEST_F(PanelCredentialsRead, EachKeyIsAskedForInAReadingOfItsOwnInThisOrder)
{
    int reading = 0;

    before_stat = [&](const std::string &path) {
        const std::string value = " = " + std::to_string(++reading) + '\n';
        EXPECT_EQ(path, files.dsn_path());
        files.write_dsn("[kolmo]\nhost" + value + "port" + value + "username" + value + "password" + value +
                        "dbname" + value);
    };
    ASSERT_EQ(read(), 0);
    EXPECT_STREQ(credentials.host.get(), "1");
    EXPECT_EQ(credentials.port, 2U);
    EXPECT_STREQ(credentials.user.get(), "3");
    EXPECT_STREQ(credentials.password.get(), "4");
    EXPECT_STREQ(credentials.database.get(), "5");
}

TEST_F(PanelCredentialsRead, KeysOfAnotherSectionOrAnotherCaseDoNotCount)
{
    files.write_shadow("secret\n");
    files.write_dsn("[Kolmo]\nhost = a\n[other]\nusername = b\n[kolmo]\nDbName = c\n");
    ASSERT_EQ(read(), 0);
    EXPECT_STREQ(credentials.host.get(), "localhost");
    EXPECT_STREQ(credentials.user.get(), "admin");
    EXPECT_STREQ(credentials.database.get(), "qsx");
}

TEST_F(PanelCredentialsRead, ADsnPathThatIsNoRegularFileGivesTheDefaults)
{
    files.write_shadow("secret\n");
    panel_dsn_path = "/";
    ASSERT_EQ(read(), 0);
    EXPECT_STREQ(credentials.host.get(), "localhost");
}

TEST_F(PanelCredentialsRead, EmptyValuesAreValues)
{
    files.write_dsn("[kolmo]\nhost =\nusername =\npassword =\ndbname =\n");
    ASSERT_EQ(read(), 0);
    EXPECT_STREQ(credentials.host.get(), "");
    EXPECT_STREQ(credentials.user.get(), "");
    EXPECT_STREQ(credentials.password.get(), "");
    EXPECT_STREQ(credentials.database.get(), "");
}

struct Port {
    const char *text;
    unsigned int number;
};

constexpr Port ports[] = {
    {"3307", 3307},    {"3307abc", 3307},
    {"", 0},           {"abc", 0},
    {"0x10", 0},       {"010", 10},
    {"70000", 70000},  {"-1", 4294967295},
    {"4294967297", 1}, {"9223372036854775808", 4294967295},
};

TEST_F(PanelCredentialsRead, ThePortIsWhatItsDigitsSay)
{
    for (const Port &port : ports) {
        files.write_dsn("[kolmo]\npassword = pw1\nport = " + std::string(port.text) + "\n");
        ASSERT_EQ(read(), 0);
        EXPECT_EQ(credentials.port, port.number) << port.text;
    }
}

TEST_F(PanelCredentialsRead, ADsnPasswordMakesTheShadowFileUnnecessary)
{
    files.write_dsn("[kolmo]\npassword = pw1\n");
    ASSERT_EQ(read(), 0);
    EXPECT_STREQ(credentials.password.get(), "pw1");
}

TEST_F(PanelCredentialsRead, ASemicolonEndsADsnPassword)
{
    files.write_dsn("[kolmo]\npassword = pw;1\n");
    ASSERT_EQ(read(), 0);
    EXPECT_STREQ(credentials.password.get(), "pw");
}

struct Shadow {
    std::string content;
    std::string password;
};

TEST_F(PanelCredentialsRead, ThePasswordIsTheShadowFilesFirstLine)
{
    const Shadow shadows[] = {
        {"secret\n", "secret"},
        {"secret", "secret"},
        {"first\nsecond\n", "first"},
        {"secret\n\n", "secret"},
        {"\n", ""},
        {"\nsecond\n", ""},
        {" blanks \n", " blanks "},
        {"secret\r\n", "secret\r"},
        {"semi;colon#\n", "semi;colon#"},
        {"x", "x"},
        {std::string(10000, 'p'), std::string(10000, 'p')},
    };

    for (const Shadow &shadow : shadows)
        EXPECT_EQ(password_of(shadow.content), shadow.password) << shadow.content;
}

TEST_F(PanelCredentialsRead, AMissingShadowFileIsAnError)
{
    errno = 0;
    EXPECT_EQ(failure(), "Unable to open admin password file: No such file or directory");
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(PanelCredentialsRead, AShadowFileThatCannotBeExaminedIsAnError)
{
    files.write_shadow("secret\n");
    failing_stat_path = files.shadow_path();
    EXPECT_EQ(failure(), "Unable to get admin password file stat: Permission denied");
    EXPECT_EQ(errno, EACCES);
}

TEST_F(PanelCredentialsRead, NoMemoryForThePasswordIsAnError)
{
    files.write_shadow("secret\n");
    /* After the defaults of host and user. */
    const int result = without_memory(3, [&] { return read(); });
    EXPECT_EQ(result, -1);
    EXPECT_STREQ(error, "Unable to allocate memory for password");
}

TEST_F(PanelCredentialsRead, AShadowFileThatCannotBeReadIsAnError)
{
    panel_shadow_path = "/";
    EXPECT_EQ(without_memory(0, [&] { return read(); }), -1); /* freeing does not cost the errno of reading */
    EXPECT_EQ(errno, EISDIR);
    EXPECT_STREQ(error, "Unable to read admin password file: Is a directory");
}

TEST_F(PanelCredentialsRead, AnEmptyShadowFileIsAnErrorWithWhateverErrnoThereIs)
{
    files.write_shadow("");
    EXPECT_EQ(failure(), "Unable to read admin password file: No such file or directory");
    files.write_dsn("");
    EXPECT_EQ(failure(), "Unable to read admin password file: Success");
}

TEST_F(PanelCredentialsRead, TheTextOfAFailureIsCutToTheBuffer)
{
    EXPECT_EQ(read(15), -1);
    EXPECT_STREQ(error, "Unable to open");
}

TEST_F(PanelCredentialsRead, AFailureLeavesNoDatabaseName)
{
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(credentials.database, nullptr);
}

TEST_F(PanelCredentialsRead, AllOfAPasswordIsWipedBeforeItsMemoryGoes)
{
    const std::string halves("sec\0ret\n", 8);

    files.write_shadow(halves);
    ASSERT_EQ(read(), 0);
    credentials = {};
    ASSERT_EQ(wiped_texts.size(), 1U);
    EXPECT_EQ(wiped_texts[0].substr(0, 7), halves.substr(0, 7));

    files.write_dsn("[kolmo]\npassword = pw1\n");
    ASSERT_EQ(read(), 0);
    credentials = {};
    EXPECT_EQ(wiped_texts.back().substr(0, 4), std::string("pw1\0", 4));
}

TEST_F(PanelCredentialsRead, NoCopyOfThePasswordStaysInTheStreamsBuffer)
{
    files.write_shadow("secret\n");
    stream_buffer_size = 0;
    ASSERT_EQ(read(), 0);
    EXPECT_EQ(stream_buffer_size, 1u); /* the size that stdio gives an unbuffered stream */
}

} // namespace

} // namespace kolmo::testing
