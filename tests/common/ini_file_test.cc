#include "common/ini_file.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/owned.h"
#include "tests/support/alloc_faults.h"
#include "tests/support/output_capture.h"
#include "tests/support/temp_dir.h"

namespace kolmo::testing
{

namespace
{

constexpr const char *none = "(none)";

/* The value of key in section s of a file with that content. */
std::string value_in(const std::string &content, const char *key = "key", const char *section = "s")
{
    const TempDir folder;
    const OwnedText value(ini_get_value(folder.write("file.ini", content).c_str(), section, key));

    return value != nullptr ? value.get() : none;
}

int switch_in(const std::string &value, int default_value)
{
    const TempDir folder;

    return ini_get_bool(folder.write("file.ini", "[s]\nkey=" + value + "\n").c_str(), "s", "key",
                        default_value);
}

struct ValueRow {
    const char *content;
    const char *value;
};

void expect_values(const std::vector<ValueRow> &rows)
{
    for (const ValueRow &row : rows)
        EXPECT_EQ(value_in(row.content), row.value) << row.content;
}

/* While it lives no file can be opened. */
class NoMoreDescriptors
{
public:
    NoMoreDescriptors()
    {
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &saved_), 0);
        const rlimit none_left = {0, saved_.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none_left), 0);
    }
    ~NoMoreDescriptors() { EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &saved_), 0); }
    NoMoreDescriptors(const NoMoreDescriptors &) = delete;
    NoMoreDescriptors &operator=(const NoMoreDescriptors &) = delete;

private:
    rlimit saved_{};
};

TEST(TrimIniLine, WhiteSpaceAndCommentsGo)
{
    const struct {
        const char *line;
        const char *trimmed;
    } rows[] = {
        {"text", "text"},
        {"  text", "text"},
        {"text \t\r\n", "text"},
        {"\t \v\f text  in  it \n", "text  in  it"},
        {"a = b ; comment", "a = b"},
        {"a;b;c", "a"},
        {" ; comment", ""},
        {";", ""},
        {"   \n", ""},
        {"", ""},
        {" \xc3\xa4 ", "\xc3\xa4"},
    };

    for (const auto &row : rows) {
        std::string line = row.line;
        const std::size_t length = trim_ini_line(line.data());

        EXPECT_STREQ(line.c_str(), row.trimmed) << row.line;
        EXPECT_EQ(length, std::strlen(row.trimmed)) << row.line;
    }
}

TEST(IniValue, BlanksAndACommentAroundItDoNotCount)
{
    EXPECT_EQ(value_in("[s]\n  password = pw1 ; more text\n", "password"), "pw1");
}

TEST(IniValue, EntriesAreFoundInTheirSectionOnly)
{
    expect_values({
        {"[s]\nkey=1\n", "1"},
        {"key=0\n", none},
        {"key=0\n[s]\nkey=1\n", "1"},
        {"[other]\nkey=0\n[s]\nkey=1\n", "1"},
        {"[s]\n[other]\nkey=0\n", none},
        {"[s]\n[other]\nkey=0\n[s]\nkey=1\n", "1"},
        {"[S]\nkey=0\n", none},
        {"", none},
    });
}

TEST(IniValue, FirstOccurrenceInFileOrderCounts)
{
    expect_values({
        {"[s]\nkey=1\n[s]\nkey=2\n", "1"},
        {"[s]\nkey=1\nkey=2\n", "1"},
        {"[s]\nx=1\n[o]\n[s]\nkey=2\n", "2"},
    });
}

TEST(IniValue, HeaderIsTrimmedOutsideItsBracketsAndExactInside)
{
    expect_values({
        {"  [s] ; comment\nkey=1\n", "1"},
        {"[ s ]\nkey=1\n", none},
        {"[s]x\nkey=1\n", none},
        {"x[s]\nkey=1\n", none},
        {"[s\nkey=1\n", none},
        {"[ss]\nkey=1\n", none},
        {"[]s]\nkey=1\n", none},
    });
    EXPECT_EQ(value_in("[ s ]\nkey=1\n", "key", " s "), "1");
}

TEST(IniValue, BracketsWithoutANameAreNoHeader)
{
    EXPECT_EQ(value_in("[s]\n[]\nkey=1\n"), "1");
    EXPECT_EQ(value_in("[]\nkey=1\n", "key", ""), none);
}

TEST(IniValue, HeaderWithAnEqualsSignIsStillAHeader)
{
    EXPECT_EQ(value_in("[s]\n[key=0]\nkey=1\n"), none);
}

TEST(IniValue, KeyAndValueAreTrimmedAroundTheFirstEqualsSign)
{
    expect_values({
        {"[s]\nkey=a=b\n", "a=b"},
        {"[s]\nkey\t=\t a b \r\n", "a b"},
        {"[s]\nkey=\n", ""},
        {"[s]\nkey=;all comment\n", ""},
        {"[s]\nkey;=0\nkey=1\n", "1"},
        {"[s]\nkey=no newline at the end", "no newline at the end"},
    });
}

TEST(IniValue, OtherLinesAreSkipped)
{
    expect_values({
        {"[s]\nkey\nkey=1\n", "1"},
        {"[s]\nKEY=0\nkeys=0\nke=0\n=0\nkey=1\n", "1"},
        {"[s]\n\n   \n;key=0\nkey=1\n", "1"},
        {"[s]\nlist=a]\nkey=1\n", "1"},
        {"[s]\n[half a header\nkey=1\n", "1"},
    });
}

TEST(IniValue, EmptyKeyCanBeAskedFor)
{
    EXPECT_EQ(value_in("[s]\n=1\n", ""), "1");
}

TEST(IniValue, LongLinesAreReadWhole)
{
    const std::string value(100000, 'v');

    EXPECT_EQ(value_in("[s]\nother=" + value + value + "\nkey=" + value + "\n"), value);
}

TEST(IniValue, ErrnoTellsOfThisCallOnly)
{
    errno = EIO;
    EXPECT_EQ(value_in("[s]\nkey=1\n"), "1");

    const TempDir folder;
    const std::string path = folder.write("file.ini", "");
    errno = EIO;
    EXPECT_EQ(ini_get_value(path.c_str(), "s", "key"), nullptr);
    EXPECT_EQ(errno, 0);
}

TEST(IniValue, WhatIsNoRegularFileGivesNullInSilence)
{
    const TempDir folder;
    const std::string fifo = folder.path("fifo");

    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string &path : {folder.path(), folder.path("missing"), fifo}) {
        const char *value = "";
        const Output output = output_of([&] { value = ini_get_value(path.c_str(), "s", "key"); });

        EXPECT_EQ(value, nullptr) << path;
        EXPECT_EQ(output.err + output.out, "") << path;
    }
}

TEST(IniValue, SymbolicLinkToARegularFileIsRead)
{
    const TempDir folder;
    const std::string link = folder.path("link.ini");

    ASSERT_EQ(symlink(folder.write("file.ini", "[s]\nkey=1\n").c_str(), link.c_str()), 0);
    const OwnedText value(ini_get_value(link.c_str(), "s", "key"));
    EXPECT_STREQ(value.get(), "1");
}

TEST(IniValue, FailedOpenIsWrittenToStandardErrorWithoutANewline)
{
    const TempDir folder;
    const std::string path = folder.write("file.ini", "[s]\nkey=1\n");
    const char *value = "";
    const Output output = output_of([&] {
        const NoMoreDescriptors limit;
        value = ini_get_value(path.c_str(), "s", "key");
    });

    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(output.err, "Failed to open " + path + ": " + std::strerror(EMFILE));
    EXPECT_EQ(output.out, "");
}

TEST(IniValue, RunningOutOfMemoryForTheCopyGivesNullInSilence)
{
    const TempDir folder;
    const std::string path = folder.write("file.ini", "[s]\nkey=1\n");
    const char *value = "";
    const Output output = output_of([&] {
        const AllocFaults faults(1);
        value = ini_get_value(path.c_str(), "s", "key");
    });

    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(output.err + output.out, "");
}

TEST(IniValue, FileIsClosedFoundOrNot)
{
    const TempDir folder;
    const std::string path = folder.write("file.ini", "[s]\nkey=1\n");
    const Fd before(dup(STDIN_FILENO));
    const int next = before.get();

    for (const char *key : {"key", "other"}) {
        const OwnedText value(ini_get_value(path.c_str(), "s", key));
        const Fd after(dup(STDIN_FILENO));
        EXPECT_EQ(after.get(), next + 1) << key;
    }
}

TEST(IniBool, YesInItsFormsIsOne)
{
    for (const char *value : {"on", "ON", "true", "TRUE", "yes", "Yes", "1", " 1 ; set"})
        EXPECT_EQ(switch_in(value, 0), 1) << value;
}

TEST(IniBool, EverythingElseIsZero)
{
    for (const char *value : {"0", "no", "off", "10", "11", "1 x", "1\t1", "yes please", "truely", "2", "-1",
                              "t", "y", "o", "tru"})
        EXPECT_EQ(switch_in(value, 1), 0) << value;
}

TEST(IniBool, MissingOrEmptyValueIsTheDefault)
{
    const TempDir folder;
    const std::string missing = folder.path("missing");

    for (const int default_value : {0, 1}) {
        EXPECT_EQ(ini_get_bool(missing.c_str(), "s", "key", default_value), default_value);
        EXPECT_EQ(switch_in("", default_value), default_value);
        EXPECT_EQ(switch_in(" ; nothing", default_value), default_value);
    }
}

} // namespace

} // namespace kolmo::testing
