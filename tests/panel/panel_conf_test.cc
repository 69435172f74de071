#include "panel/panel_conf.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "common/owned.h"
#include "tests/panel/fresh_process.h"
#include "tests/panel/panel_files.h"
#include "tests/support/alloc_faults.h"
#include "tests/support/log_capture.h"

namespace
{

bool getline_lacks_memory = false;

} // namespace

extern "C" {

ssize_t __real_getline(char **line, std::size_t *size, std::FILE *stream);
ssize_t __real___getdelim(char **line, std::size_t *size, int end, std::FILE *stream);

/* As it does when its own memory runs out: neither the end of the file nor a read error. */
ssize_t __wrap_getline(char **line, std::size_t *size, std::FILE *stream)
{
    if (!getline_lacks_memory)
        return __real_getline(line, size, stream);
    errno = ENOMEM;
    return -1;
}

/* The same in an optimised program. */
ssize_t __wrap___getdelim(char **line, std::size_t *size, int end, std::FILE *stream)
{
    if (!getline_lacks_memory)
        return __real___getdelim(line, size, end, stream);
    errno = ENOMEM;
    return -1;
}

} // extern "C"

namespace kolmo::testing
{

namespace
{

using OwnedStore = std::unique_ptr<QsxConfStore, Release<conf_store_free>>;

OwnedStore new_store()
{
    return OwnedStore(static_cast<QsxConfStore *>(std::calloc(1, sizeof(QsxConfStore))));
}

/* A stream over text, as the parser closes it. */
std::FILE *stream_of(const std::string &text)
{
    return fmemopen(const_cast<char *>(text.data()), text.size(), "r");
}

/* A stream that gives its text once and then fails to read with EIO; closing it spoils errno. */
struct BrokenStream {
    std::string text;
    bool is_given = false;
    bool is_closed = false;

    static ssize_t read(void *cookie, char *buffer, std::size_t size)
    {
        BrokenStream *const self = static_cast<BrokenStream *>(cookie);
        if (self->is_given) {
            errno = EIO;
            return -1;
        }
        self->is_given = true;
        return static_cast<ssize_t>(self->text.copy(buffer, size));
    }

    static int close(void *cookie)
    {
        static_cast<BrokenStream *>(cookie)->is_closed = true;
        errno = EBADF;
        return 0;
    }

    std::FILE *open()
    {
        cookie_io_functions_t functions{};
        functions.read = read;
        functions.close = close;
        return fopencookie(this, "r", functions);
    }
};

/* The value of the variable N after reading one text; nothing when the text does not define it. */
std::optional<std::string> parsed_value(const std::string &text, const char *name = "N")
{
    const OwnedStore store = new_store();

    EXPECT_EQ(conf_parse_stream(stream_of(text), store.get()), 0);
    const char *const value = conf_store_find(store.get(), name);
    return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
}

std::string numbered(std::size_t number)
{
    return "V" + std::to_string(number);
}

void fill(QsxConfStore *store, std::size_t count)
{
    for (std::size_t i = 0; i < count; i++)
        ASSERT_EQ(conf_store_set(store, numbered(i).c_str(), "x"), 0);
}

struct KnownVariable {
    QsxConfVar var;
    int number;
    const char *name;
    const char *value;
};

constexpr KnownVariable known_variables[] = {
    {_MIN_POSSIBLE_QSX_CONF_VAR_NAME, 0, "_MIN_POSSIBLE_QSX_CONF_VAR_NAME",
     "_MIN_POSSIBLE_QSX_CONF_VAR_VALUE"},
    {KOLMO_MAILNAMES_D, 1, "KOLMO_MAILNAMES_D", "/var/qmail/mailnames"},
    {RBLSMTPD, 2, "RBLSMTPD", "/usr/sbin/rblsmtpd"},
    {CLIENT_PHP_BIN, 3, "CLIENT_PHP_BIN", "/opt/qsx/bin/php-cli"},
    {LIB_CRYPTO_PATH, 4, "LIB_CRYPTO_PATH", "/lib/libcrypto.so"},
    {LIB_SSL_PATH, 5, "LIB_SSL_PATH", "/lib/libssl.so"},
    {AWSTATS_DOC_D, 6, "AWSTATS_DOC_D", "/usr/share/awstats"},
    {AWSTATS_TOOLS_D, 7, "AWSTATS_TOOLS_D", "/usr/share/awstats/tools"},
    {AWSTATS_BIN_D, 8, "AWSTATS_BIN_D", "/usr/lib/cgi-bin"},
    {AWSTATS_ETC_D, 9, "AWSTATS_ETC_D", "/etc/awstats"},
    {MAILMAN_VAR_D, 10, "MAILMAN_VAR_D", "/var/lib/mailman"},
    {MAILMAN_ROOT_D, 11, "MAILMAN_ROOT_D", "/usr/lib/mailman"},
    {PGSQL_DATA_D, 12, "PGSQL_DATA_D", "/var/lib/postgresql/14/main"},
    {PGSQL_BIN_D, 13, "PGSQL_BIN_D", "/usr/lib/postgresql/14/bin"},
    {MYSQL_BIN_D, 14, "MYSQL_BIN_D", "/usr/bin"},
    {MYSQL_VAR_D, 15, "MYSQL_VAR_D", "/var/lib/mysql"},
    {WEB_STAT, 16, "WEB_STAT", "/usr/bin/webalizer"},
    {DUMP_D, 17, "DUMP_D", "/var/lib/qsx/dumps"},
    {DUMP_TMP_D, 18, "DUMP_TMP_D", "/tmp"},
    {NAMED_RUN_ROOT_D, 19, "NAMED_RUN_ROOT_D", "/var/named/run-root"},
    {HTTPD_BIN, 20, "HTTPD_BIN", "/usr/sbin/apache2"},
    {HTTPD_SERVICE, 21, "HTTPD_SERVICE", "apache2"},
    {HTTPD_LOG_D, 22, "HTTPD_LOG_D", "/var/log/apache2"},
    {HTTPD_INCLUDE_D, 23, "HTTPD_INCLUDE_D", "/etc/apache2/conf-enabled"},
    {HTTPD_CONF_D, 24, "HTTPD_CONF_D", "/etc/apache2"},
    {HTTPD_VHOSTS_D, 25, "HTTPD_VHOSTS_D", "/var/www/vhosts"},
    {MYSQL_SOCKET, 26, "MYSQL_SOCKET", "/var/run/mysqld/mysqld.sock"},
    {SA_MAX_MAIL_SIZE, 27, "SA_MAX_MAIL_SIZE", "256000"},
    {SNI_SUPPORT, 28, "SNI_SUPPORT", "true"},
    {PRODUCT_ROOT_D, 29, "PRODUCT_ROOT_D", "/opt/qsx"},
    {_MAX_POSSIBLE_QSX_CONF_VAR_NAME, 30, "_MAX_POSSIBLE_QSX_CONF_VAR_NAME",
     "_MAX_POSSIBLE_QSX_CONF_VAR_VALUE"},
};
static_assert(std::size(known_variables) == 31);

class ConfStore : public ::testing::Test
{
protected:
    LogCapture log;
    OwnedStore store = new_store();
};

using ConfParseStream = ConfStore;
using ConfStoreReserve = ConfStore;
using ConfStoreSet = ConfStore;
using ConfStoreSort = ConfStore;
using ConfStoreFind = ConfStore;
using ConfStoreFree = ConfStore;

class PanelConf : public ConfStore
{
protected:
    PanelFiles files;
};

/* What the tests below leave behind must not be a loaded file, or their order would matter. */
class PanelConfLoaded : public PanelConf
{
protected:
    void in_process(const std::function<void()> &body)
    {
        in_fresh_process([&] {
            body();
            EXPECT_EQ(log.take(), std::vector<std::string>{});
        });
    }
};

TEST(PanelConfPaths, TheConfigurationFileIsThePanels)
{
    EXPECT_STREQ(panel_conf_path, "/etc/qsx/qsx.conf");
}

TEST(PanelConfPaths, TheReaderLogsWarningsUnderTheUserFacility)
{
    EXPECT_EQ(CONF_READER_PRIORITY, 12);
}

TEST_F(PanelConf, WithoutAFileEveryVariableHasItsDefault)
{
    for (const KnownVariable &known : known_variables) {
        EXPECT_EQ(known.var, known.number) << known.name;
        EXPECT_STREQ(conf_get(known.var), known.value) << known.name;
    }
    EXPECT_EQ(log.take(), std::vector<std::string>(std::size(known_variables), files.missing_conf_line()));
}

TEST_F(PanelConf, EveryVariableButTheUpperMarkerIsKnownByName)
{
    for (const KnownVariable &known : known_variables) {
        if (known.var == _MAX_POSSIBLE_QSX_CONF_VAR_NAME)
            continue;
        EXPECT_STREQ(conf_get_by_name(known.name), known.value) << known.name;
    }
    EXPECT_EQ(log.take(),
              std::vector<std::string>(std::size(known_variables) - 1, files.missing_conf_line()));
}

TEST_F(PanelConf, WithoutAFileEveryLookupTriesToOpenItAgainAndGivesNull)
{
    for (int nth = 0; nth < 2; nth++) {
        EXPECT_EQ(conf_file_lookup("MYSQL_SOCKET"), nullptr);
        EXPECT_EQ(conf_get_from_file(MYSQL_SOCKET), nullptr);
        EXPECT_EQ(log.take(), std::vector<std::string>(2, files.missing_conf_line()));
    }
}

TEST_F(PanelConf, AFolderInPlaceOfTheFileCannotBeReadAndIsTriedAgain)
{
    panel_conf_path = "/";
    EXPECT_STREQ(conf_get(SNI_SUPPORT), "true");
    EXPECT_EQ(log.take_one(), "12 Unable to read configuration file: Is a directory");
    EXPECT_EQ(conf_load(), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(log.take_one(), "12 Unable to read configuration file: Is a directory");
}

TEST_F(PanelConf, NoMemoryForTheStoreIsLoggedAsAnErrorAndTheDefaultServes)
{
    files.write_conf("SNI_SUPPORT false\n");
    const char *value = without_memory(1, [&] { return conf_get(SNI_SUPPORT); });
    EXPECT_STREQ(value, "true");
    EXPECT_EQ(log.take_one(), "3 Not enough memory to allocate Kolmo runtime configuration structure");
}

/* There is no file: trying to open it would be logged. */
TEST_F(PanelConf, NoMemoryForTheFirstSlotsFailsLoadingWithoutAWordBeforeTheFileIsOpened)
{
    const int result = without_memory(2, [] { return conf_load(); });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, ENOMEM);
}

/* A log that leaves errno as a failing syslog would; LogCapture puts the log function back. */
void spoil_errno(int, const char *, ...)
{
    errno = EBADF;
}

TEST_F(PanelConf, LoggingDoesNotCostTheErrnoOfOpeningOrReading)
{
    log_message = spoil_errno;
    EXPECT_EQ(conf_load(), -1);
    EXPECT_EQ(errno, ENOENT);
    panel_conf_path = "/";
    EXPECT_EQ(conf_load(), -1);
    EXPECT_EQ(errno, EISDIR);
}

TEST_F(PanelConf, LoggingDoesNotCostTheErrnoOfMissingMemory)
{
    log_message = spoil_errno;
    fill(store.get(), 20);
    for (const int nth : {1, 2}) { /* the growth, the copy of the name */
        errno = 0;
        const int result = without_memory(nth, [&] { return conf_store_set(store.get(), "N", "v"); });
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(result, -1);
    }
}

TEST_F(PanelConf, AnUnknownNameAndTheUpperMarkerAreLoggedAsErrors)
{
    for (const char *name : {"NO_SUCH_VAR", "_MAX_POSSIBLE_QSX_CONF_VAR_NAME"}) {
        EXPECT_EQ(conf_get_by_name(name), nullptr);
        EXPECT_EQ(log.take_one(),
                  std::string("3 variable '") + name +
                      "' was found neither in /etc/qsx/qsx.conf, nor in compile-time defaults");
    }
}

TEST_F(PanelConfLoaded, TheFilesValueGoesBeforeTheDefaultFromTheSamePlaceEachTime)
{
    files.write_conf("MYSQL_SOCKET /tmp/my.sock\n");
    in_process([&] {
        const char *const first = conf_get(MYSQL_SOCKET);
        EXPECT_STREQ(first, "/tmp/my.sock");
        EXPECT_EQ(conf_get(MYSQL_SOCKET), first);
        EXPECT_EQ(conf_get_from_file(MYSQL_SOCKET), first);
        EXPECT_EQ(conf_get_by_name("MYSQL_SOCKET"), first);
        EXPECT_EQ(conf_file_lookup("MYSQL_SOCKET"), first);
        EXPECT_STREQ(conf_get(DUMP_TMP_D), "/tmp") << "which the file lacks";
        EXPECT_EQ(conf_get_from_file(DUMP_TMP_D), nullptr);
        EXPECT_EQ(conf_file_lookup("DUMP_TMP_D"), nullptr);
    });
}

TEST_F(PanelConfLoaded, TheFileIsReadOncePerProcess)
{
    files.write_conf("MYSQL_SOCKET /tmp/my.sock\n");
    in_process([&] {
        EXPECT_EQ(conf_load(), 0);
        files.write_conf("MYSQL_SOCKET /tmp/other.sock\nDUMP_D /dumps\n");
        EXPECT_EQ(conf_load(), 0);
        EXPECT_STREQ(conf_get(MYSQL_SOCKET), "/tmp/my.sock");
        EXPECT_STREQ(conf_get(DUMP_D), "/var/lib/qsx/dumps");
    });
}

TEST_F(PanelConfLoaded, AFileThatAppearsLaterReplacesTheDefaultHandedOutBefore)
{
    in_process([&] {
        EXPECT_STREQ(conf_get(MYSQL_SOCKET), "/var/run/mysqld/mysqld.sock");
        EXPECT_EQ(log.take_one(), files.missing_conf_line());
        files.write_conf("MYSQL_SOCKET /tmp/my.sock\n");
        EXPECT_STREQ(conf_get(MYSQL_SOCKET), "/tmp/my.sock");
    });
}

TEST_F(PanelConfLoaded, AnUnknownVariableOfTheFileIsFoundInTheFileButNotByName)
{
    files.write_conf("EXTRA yes\n");
    in_process([&] {
        EXPECT_STREQ(conf_file_lookup("EXTRA"), "yes");
        EXPECT_EQ(conf_get_by_name("EXTRA"), nullptr);
        EXPECT_EQ(log.take_one(), "3 variable 'EXTRA' was found neither in /etc/qsx/qsx.conf, nor in "
                                  "compile-time defaults");
    });
}

TEST_F(PanelConfLoaded, AFileWithBadLinesIsLoadedAllTheSame)
{
    files.write_conf("BAD=1\nDUMP_D /dumps\n");
    in_process([&] {
        EXPECT_STREQ(conf_get(DUMP_D), "/dumps");
        EXPECT_EQ(log.take().size(), 1u);
    });
}

struct ParsedLine {
    const char *text;
    const char *value;
};

constexpr ParsedLine parsed_lines[] = {
    {"N /tmp/my.sock\n", "/tmp/my.sock"},
    {"N /tmp/my.sock # comment\n", "/tmp/my.sock"},
    {"N /tmp/my.sock \n", "/tmp/my.sock \n"}, /* an even run is kept */
    {"N v  \n", "v  "},                       /* an odd run loses its last character */
    {"N v   \n", "v   \n"},
    {"N v    \n", "v    "},
    {"N v  # comment\n", "v  "},
    {"N v   # comment\n", "v  "},
    {"N v\r\n", "v\r\n"},
    {"N v", "v"},
    {"N v ", "v"},
    {"N v  ", "v  "},
    {"N a b\n", "a b"},
    {"N a  b\n", "a  b"}, /* runs inside do not count */
    {"N a   b \n", "a   b \n"},
    {"N a#b\n", "a"},
    {"N a #b #c\n", "a"},
    {"N =v\n", "=v"},
    {" \t N \t v\n", "v"},
    {"N\tv\n", "v"},
    {"# N old\nN v\n", "v"},
    {"\n  \n\t# comment\n#\nN v\n", "v"},
    {"N one\nN two\n", "two"},
    {"N one\nM x\nN two\nA y\n", "two"},
};

TEST_F(ConfParseStream, ALineGivesItsValue)
{
    for (const ParsedLine &line : parsed_lines)
        EXPECT_EQ(parsed_value(line.text), line.value) << "text: " << line.text;
}

TEST_F(ConfParseStream, AnEmptyTextGivesNothing)
{
    EXPECT_EQ(conf_parse_stream(stream_of("\n"), store.get()), 0);
    EXPECT_EQ(store->count, 0u);
}

TEST_F(ConfParseStream, ANameMayBeginWithADigitAndHoldAnyLettersDigitsAndUnderscores)
{
    EXPECT_EQ(parsed_value("9_Az0_z v\n", "9_Az0_z"), "v");
}

TEST_F(ConfParseStream, AZeroByteEndsItsLine)
{
    EXPECT_EQ(parsed_value(std::string("N v\0 rest\nM w\n", 14)), "v");
    EXPECT_EQ(parsed_value(std::string("N v\0 rest\nM w\n", 14), "M"), "w");
}

struct RejectedLine {
    const char *text;
    const char *logged;
};

constexpr RejectedLine rejected_lines[] = {
    {"N=v\n", "12 Invalid variable definition N=v\n\nExpected a space after variable name\n"},
    {"  N=v # c\n", "12 Invalid variable definition N=v # c\n\nExpected a space after variable name\n"},
    {"N", "12 Invalid variable definition N\nExpected a space after variable name\n"},
    {"N# v\n", "12 Invalid variable definition N# v\n\nExpected a space after variable name\n"},
    {"-N v\n", "12 Invalid variable definition -N v\n\nExpected a space after variable name\n"},
    {"N\n", "12 Invalid variable definition N\n\nExpected a value"},
    {"  N  \n", "12 Invalid variable definition N  \n\nExpected a value"},
    {"N # comment\n", "12 Invalid variable definition N # comment\n\nExpected a value"},
    {"N ", "12 Invalid variable definition N \nExpected a value"},
};

TEST_F(ConfParseStream, ALineThatDefinesNothingIsLoggedAndSkipped)
{
    for (const RejectedLine &line : rejected_lines) {
        EXPECT_EQ(parsed_value(line.text), std::nullopt) << line.text;
        EXPECT_EQ(log.take_one(), line.logged);
    }
}

TEST_F(ConfParseStream, TheLineAfterARejectedOneCounts)
{
    EXPECT_EQ(parsed_value("N=v\nN w\n"), "w");
    EXPECT_EQ(log.take().size(), 1u);
}

TEST_F(ConfParseStream, TheStoreComesOutSorted)
{
    ASSERT_EQ(conf_parse_stream(stream_of("B 1\nC 2\nA 3\n"), store.get()), 0);
    EXPECT_TRUE(store->sorted);
    ASSERT_EQ(store->count, 3u);
    EXPECT_STREQ(store->entries[0].name, "A");
    EXPECT_STREQ(store->entries[2].name, "C");
}

TEST_F(ConfParseStream, AReadErrorIsLoggedOnceClosedAndKeepsWhatWasRead)
{
    BrokenStream broken{.text = "B 1\nA 2\n"};

    log.on_line = [&] {
        EXPECT_TRUE(broken.is_closed) << "logged too early";
    };
    EXPECT_EQ(conf_parse_stream(broken.open(), store.get()), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(log.take_one(), "12 Unable to read configuration file: Input/output error");
    EXPECT_TRUE(store->sorted);
    EXPECT_STREQ(conf_store_find(store.get(), "A"), "2");
}

TEST_F(ConfParseStream, FreeingTheLineDoesNotCostTheErrnoOfReading)
{
    BrokenStream broken{.text = "A 1\n"};

    std::FILE *const stream = broken.open();
    const int result = without_memory(0, [&] { return conf_parse_stream(stream, store.get()); });
    const int error = errno;
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, EIO);
    EXPECT_EQ(log.take_one(), "12 Unable to read configuration file: Input/output error");
}

TEST_F(ConfParseStream, NoMemoryForALineIsAFailureToReadTheFile)
{
    getline_lacks_memory = true;
    const int result = conf_parse_stream(stream_of("A 1\n"), store.get());
    const int error = errno;
    getline_lacks_memory = false;
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, ENOMEM);
    EXPECT_EQ(log.take_one(), "12 Unable to read configuration file: Cannot allocate memory");
}

TEST_F(ConfParseStream, AVariableThatCannotBeKeptEndsTheReadingAndClosesTheStream)
{
    BrokenStream broken{.text = "B 1\nA 2\n"};
    int result;

    ASSERT_EQ(conf_store_reserve(store.get()), 0);
    std::FILE *const stream = broken.open();
    {
        AllocFaults faults(3); /* the copy of the second name */
        result = conf_parse_stream(stream, store.get());
        const int saved_errno = errno;
        EXPECT_EQ(saved_errno, ENOMEM);
    }
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(broken.is_closed);
    EXPECT_EQ(log.take_one(), "12 Unable to form configuration: Cannot allocate memory");
    EXPECT_STREQ(conf_store_find(store.get(), "B"), "1");
}

TEST_F(PanelConf, ParsingAMissingFileNamesItAndKeepsErrno)
{
    errno = 0;
    EXPECT_EQ(conf_parse_file(files.conf_path().c_str(), store.get()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(log.take_one(), files.missing_conf_line());
}

TEST_F(PanelConf, ParsingAddsToWhatTheStoreHas)
{
    files.write_conf("A new\nB b\n");
    ASSERT_EQ(conf_store_set(store.get(), "A", "old"), 0);
    EXPECT_EQ(conf_parse_file(files.conf_path().c_str(), store.get()), 0);
    EXPECT_EQ(store->count, 2u);
    EXPECT_STREQ(conf_store_find(store.get(), "A"), "new");
}

TEST_F(PanelConf, AFileOfManyLinesIsReadWhole)
{
    constexpr std::size_t lines = 45; /* past both growths of the store */
    std::string text;

    for (std::size_t i = 0; i < lines; i++)
        text += numbered(i) + " value" + std::to_string(i) + "\n";
    files.write_conf(text);
    ASSERT_EQ(conf_parse_file(files.conf_path().c_str(), store.get()), 0);
    EXPECT_EQ(store->count, lines);
    for (std::size_t i = 0; i < lines; i++)
        EXPECT_EQ(std::string(conf_store_find(store.get(), numbered(i).c_str())),
                  "value" + std::to_string(i));
}

TEST_F(ConfStoreReserve, AnEmptyStoreGetsTwentyNullSlotsAndCountsAsSorted)
{
    store->count = 1; /* whatever stands there */
    EXPECT_EQ(conf_store_reserve(store.get()), 0);
    EXPECT_EQ(store->capacity, 20u);
    EXPECT_EQ(store->count, 0u);
    EXPECT_TRUE(store->sorted);
    for (std::size_t i = 0; i < store->capacity; i++)
        EXPECT_TRUE(store->entries[i].name == nullptr && store->entries[i].value == nullptr) << i;
}

TEST_F(ConfStoreReserve, NoMemoryForTheFirstSlotsIsSilentAndSetsErrno)
{
    const int result = without_memory(1, [&] { return conf_store_reserve(store.get()); });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(store->entries, nullptr);
}

TEST_F(ConfStoreReserve, ASlotLeftIsEnough)
{
    fill(store.get(), 19);
    const QsxConfEntry *const entries = store->entries;
    EXPECT_EQ(conf_store_reserve(store.get()), 0);
    EXPECT_EQ(store->entries, entries);
    EXPECT_EQ(store->capacity, 20u);
}

TEST_F(ConfStoreReserve, AFullStoreDoublesAndItsNewSlotsAreNull)
{
    fill(store.get(), 20);
    EXPECT_EQ(conf_store_reserve(store.get()), 0);
    EXPECT_EQ(store->capacity, 40u);
    EXPECT_EQ(store->count, 20u);
    EXPECT_STREQ(store->entries[19].name, "V19");
    for (std::size_t i = store->count; i < store->capacity; i++)
        EXPECT_TRUE(store->entries[i].name == nullptr && store->entries[i].value == nullptr) << i;
}

TEST_F(ConfStoreReserve, WhenDoublingDoesNotCoverTheCountTwentyMoreAreMade)
{
    for (const std::size_t capacity : {2u, 3u}) {
        const OwnedStore small = new_store();
        ASSERT_EQ(conf_store_reserve(small.get()), 0);
        small->capacity = capacity;
        small->count = 6;
        EXPECT_EQ(conf_store_reserve(small.get()), 0);
        EXPECT_EQ(small->capacity, 26u);
    }
}

TEST_F(ConfStoreReserve, NoMemoryToGrowIsLoggedAndLeavesTheStore)
{
    fill(store.get(), 20);
    const int result = without_memory(1, [&] { return conf_store_reserve(store.get()); });
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(log.take_one(), "12 Unable to read configuration: Cannot allocate memory");
    EXPECT_EQ(store->capacity, 20u);
    EXPECT_STREQ(conf_store_find(store.get(), "V19"), "x");
}

struct HugeStore {
    std::size_t capacity;
    std::size_t count;
};

/* The capacity doubled, its size in bytes, the count grown by a step: each too large for a number. */
constexpr HugeStore huge_stores[] = {
    {SIZE_MAX / 2 + 1, SIZE_MAX / 2 + 1},
    {SIZE_MAX / 16, SIZE_MAX / 16},
    {1, SIZE_MAX - 5},
};

TEST_F(ConfStoreReserve, ASizeThatOverflowsCountsAsNoMemory)
{
    for (const HugeStore &huge : huge_stores) {
        QsxConfEntry entry{};
        QsxConfStore full{&entry, huge.capacity, huge.count, true};
        errno = 0;
        EXPECT_EQ(conf_store_reserve(&full), -1);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(log.take_one(), "12 Unable to read configuration: Cannot allocate memory");
        EXPECT_EQ(full.capacity, huge.capacity);
        EXPECT_EQ(full.entries, &entry);
    }
}

TEST_F(ConfStoreSet, BothTextsAreCopied)
{
    char name[] = "N";
    char value[] = "v";

    ASSERT_EQ(conf_store_set(store.get(), name, value), 0);
    name[0] = value[0] = '-';
    EXPECT_STREQ(conf_store_find(store.get(), "N"), "v");
}

TEST_F(ConfStoreSet, ANewVariableLeavesTheStoreUnsorted)
{
    ASSERT_EQ(conf_store_set(store.get(), "N", "v"), 0);
    EXPECT_FALSE(store->sorted);
    EXPECT_EQ(store->count, 1u);
}

TEST_F(ConfStoreSet, AKnownVariableGetsTheNewValueInItsOldPlace)
{
    ASSERT_EQ(conf_store_set(store.get(), "N", "old"), 0);
    conf_store_sort(store.get());
    ASSERT_EQ(conf_store_set(store.get(), "N", "new"), 0);
    EXPECT_TRUE(store->sorted);
    EXPECT_EQ(store->count, 1u);
    EXPECT_STREQ(conf_store_find(store.get(), "N"), "new");
}

TEST_F(ConfStoreSet, ACopyThatCannotBeMadeIsLoggedAndLeavesTheStore)
{
    ASSERT_EQ(conf_store_set(store.get(), "N", "old"), 0);
    for (const int copy : {1, 2}) {
        const int result = without_memory(copy, [&] { return conf_store_set(store.get(), "N", "new"); });
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(result, -1);
        EXPECT_EQ(log.take_one(), "12 Unable to form configuration: Cannot allocate memory");
        EXPECT_STREQ(conf_store_find(store.get(), "N"), "old");
    }
}

TEST_F(ConfStoreSet, AFullStoreThatCannotGrowFails)
{
    fill(store.get(), 20);
    const int result = without_memory(1, [&] { return conf_store_set(store.get(), "N", "v"); });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(log.take_one(), "12 Unable to read configuration: Cannot allocate memory");
    EXPECT_EQ(conf_store_find(store.get(), "N"), nullptr);
}

TEST_F(ConfStoreSort, NamesComeIntoByteOrder)
{
    for (const char *name : {"b", "_", "B", "aa", "a", "9"})
        ASSERT_EQ(conf_store_set(store.get(), name, name), 0);
    conf_store_sort(store.get());

    std::string order;
    for (std::size_t i = 0; i < store->count; i++)
        order += std::string(store->entries[i].name) + ' ' + store->entries[i].value + ' ';
    EXPECT_EQ(order, "9 9 B B _ _ a a aa aa b b ");
    EXPECT_TRUE(store->sorted);
}

TEST_F(ConfStoreSort, AStoreThatCountsAsSortedIsLeftAlone)
{
    ASSERT_EQ(conf_store_set(store.get(), "B", "1"), 0);
    ASSERT_EQ(conf_store_set(store.get(), "A", "2"), 0);
    store->sorted = true;
    conf_store_sort(store.get());
    EXPECT_STREQ(store->entries[0].name, "B");
}

TEST_F(ConfStoreFind, EveryVariableIsFoundSortedOrNot)
{
    fill(store.get(), 30);
    for (const bool sorted : {false, true}) {
        if (sorted)
            conf_store_sort(store.get());
        ASSERT_EQ(store->sorted, sorted);
        for (std::size_t i = 0; i < 30; i++)
            EXPECT_STREQ(conf_store_find(store.get(), numbered(i).c_str()), "x") << numbered(i);
    }
}

TEST_F(ConfStoreFind, WhatIsNotThereIsNotFound)
{
    EXPECT_EQ(conf_store_find(store.get(), "V"), nullptr);
    fill(store.get(), 3);
    EXPECT_EQ(conf_store_find(store.get(), "V"), nullptr);
    conf_store_sort(store.get());
    for (const char *name : {"U", "V", "V1x", "W"})
        EXPECT_EQ(conf_store_find(store.get(), name), nullptr) << name;
}

TEST_F(ConfStoreFree, NullIsIgnored)
{
    conf_store_free(nullptr);
}

} // namespace

} // namespace kolmo::testing
