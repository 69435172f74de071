#include "restore/extra_reply_headers.h"

#include <cstddef>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/responder_store_fixture.h"
#include "tests/support/sqlite_faults.h"

namespace kolmo::testing
{

namespace
{

const std::string cannot_parse = "3 Unable to parse auto-reply headers json: ";

/* While it lives, the nth "new" finds no memory. */
class NewFaults
{
public:
    explicit NewFaults(int nth)
    {
        left = nth;
        has_failed = false;
    }
    ~NewFaults() { left = 0; }
    NewFaults(const NewFaults &) = delete;
    NewFaults &operator=(const NewFaults &) = delete;

    static int left;
    static bool has_failed;
};

int NewFaults::left;
bool NewFaults::has_failed;

} // namespace

} // namespace kolmo::testing

void *operator new(std::size_t size)
{
    using kolmo::testing::NewFaults;

    if (NewFaults::left > 0 && --NewFaults::left == 0) {
        NewFaults::has_failed = true;
        throw std::bad_alloc();
    }
    if (void *const memory = std::malloc(size))
        return memory;
    throw std::bad_alloc();
}

/* Of the test library's own; never one that is to fail. */
void *operator new(std::size_t size, const std::nothrow_t &) noexcept
{
    return std::malloc(size);
}

void operator delete(void *memory) noexcept
{
    std::free(memory);
}

void operator delete(void *memory, std::size_t) noexcept
{
    std::free(memory);
}

namespace kolmo::testing
{

namespace
{

class StoreExtraHeaders : public ResponderStoreTest
{
protected:
    StoreConnection connection = store.open();
};

/* The pairs that were bound, in their order: "name=value", each text in quotes. */
Lines pairs_of(const SqliteFaults &sqlite)
{
    Lines pairs;

    for (const std::string &call : sqlite.calls()) {
        if (call.rfind("bind 1 ", 0) == 0)
            pairs.push_back(call.substr(7));
        else if (call.rfind("bind 2 ", 0) == 0)
            pairs.back() += '=' + call.substr(7);
    }
    return pairs;
}

struct Setting {
    const char *json;
    Lines pairs;
};

const Setting settings[] = {
    {R"({"X-A":"1","X-B":"2"})", {"'X-A'='1'", "'X-B'='2'"}},
    {R"({"X-B":"2","X-A":"1"})", {"'X-B'='2'", "'X-A'='1'"}}, /* in the document's order */
    {" \n{ \"X-A\" : \"1\" }\t\n", {"'X-A'='1'"}},
    {R"({"A":"a\"b\\c\/d\n\u00fc"})", {"'A'='a\"b\\c/d\n\xc3\xbc'"}},
    {R"({"X-\u00fc":"\ud83d\ude00"})", {"'X-\xc3\xbc'='\xf0\x9f\x98\x80'"}},
    {R"({"A":30})", {"'A'='30'"}}, /* as written */
    {R"({"A":1.50})", {"'A'='1.50'"}},
    {R"({"A":-0.5e+10})", {"'A'='-0.5e+10'"}},
    {R"({"A":123456789012345678901234567890})", {"'A'='123456789012345678901234567890'"}},
    {R"({"A":true})", {"'A'='true'"}},
    {R"({"A":false})", {"'A'='false'"}},
    {R"({"A":null})", {"'A'='null'"}},
    {R"({"A":{"B":"b"},"C":"c"})", {"'A'=''", "'C'='c'"}},
    {R"({"A":["b"],"C":"c"})", {"'A'=''", "'C'='c'"}},
    {R"({"A":{}})", {"'A'=''"}},
    {R"({"A":""})", {"'A'=''"}},
    {R"({"":"a"})", {"''='a'"}},
    {R"({"a.b":"c"})", {"'a.b'='c'"}}, /* a name is no path */
    {R"({"A":"1","B":"2","A":"3"})", {"'A'='1'", "'B'='2'", "'A'='3'"}},
    {R"(["a",1,{"b":"c"}])", {"''='a'", "''='1'", "''=''"}},
    {"{}", {}},
    {"[]", {}},
    {R"("text")", {}},
    {"5", {}},
    {"true", {}},
    {"null", {}},
};

TEST_F(StoreExtraHeaders, MembersOfTheRootGoToTheCallersStoreAsNamesAndValues)
{
    for (const Setting &setting : settings) {
        const SqliteFaults sqlite;

        EXPECT_EQ(store_extra_headers(&connection, setting.json), 0) << setting.json;
        EXPECT_EQ(pairs_of(sqlite), setting.pairs) << setting.json;
        EXPECT_EQ(sqlite.count("open"), 0);
    }
}

/* It opens and closes a connection of its own, as the writer does. */
TEST_F(StoreExtraHeaders, WriterIsCalledWhenThereAreNone)
{
    const SqliteFaults sqlite;

    EXPECT_EQ(store_extra_headers(nullptr, "{}"), 0);
    EXPECT_EQ(sqlite.calls(), (Lines{"open " + store.path(), "busy_timeout 50", "close"}));
}

/* Pointers into short texts that lie within their nodes must hold as well. */
TEST_F(StoreExtraHeaders, HundredsOfMembersArriveInOrder)
{
    std::string json = "{";
    Lines expected;

    for (int i = 0; i < 500; i++) {
        const std::string text = std::to_string(i);

        json += (i != 0 ? ",\"" : "\"") + text + "\":\"v" + text + '"';
        expected.push_back("extra_headers: " + text + "|v" + text);
    }
    json += '}';

    EXPECT_EQ(store_extra_headers(&connection, json.c_str()), 0);
    EXPECT_EQ(store.rows(), expected);
}

TEST_F(StoreExtraHeaders, FailingWriterReportsForItself)
{
    store.execute("DROP TABLE extra_headers");

    EXPECT_EQ(store_extra_headers(&connection, R"({"A":"1"})"), -1);
    EXPECT_EQ(log.take_one(),
              "3 Unable to prepare SQL statement for query 'REPLACE INTO extra_headers VALUES (?, ? "
              " );': no such table: extra_headers");
}

/* Only the reading is guarded. */
TEST_F(StoreExtraHeaders, TroubleOfTheWriterIsNotTakenForABrokenSetting)
{
    store.execute("DROP TABLE extra_headers");
    log.on_line = [] {
        throw std::runtime_error("no log");
    };

    EXPECT_THROW((void)store_extra_headers(&connection, R"({"A":"1"})"), std::runtime_error);
    EXPECT_EQ(log.take_one().find(cannot_parse), std::string::npos);
}

struct BrokenSetting {
    const char *json;
    const char *complaint;
};

const BrokenSetting broken_settings[] = {
    {"", "<unspecified file>(1): expected value"},
    {"  ", "<unspecified file>(1): expected value"},
    {"X-A: 1", "<unspecified file>(1): expected value"},
    {R"({"A":"1"} x)", "<unspecified file>(1): garbage after data"},
    {"{\"A\":\n\"1\"}\n\nx", "<unspecified file>(4): garbage after data"},
    {R"({"A":"1"}{})", "<unspecified file>(1): garbage after data"},
    {R"({"A":"1")", "<unspecified file>(1): expected '}' or ','"},
    {"{\n\"A\" \"1\"}", "<unspecified file>(2): expected ':'"},
    {"{\"A\":\n}", "<unspecified file>(2): expected value"},
    {R"({"A":"1",})", "<unspecified file>(1): expected key string"},
    {R"({A:"1"})", "<unspecified file>(1): expected key string"},
    {R"(["1")", "<unspecified file>(1): expected ']' or ','"},
    {R"({"A":"1)", "<unspecified file>(1): unterminated string"},
    {R"({"A":"\x"})", "<unspecified file>(1): invalid escape sequence"},
    {"{\"A\":\"\xff\"}", "<unspecified file>(1): invalid code sequence"},
    {nullptr, "basic_string: construction from null is not valid"},
};

TEST_F(StoreExtraHeaders, BrokenSettingIsReportedAndNothingIsWritten)
{
    for (const BrokenSetting &broken : broken_settings) {
        const SqliteFaults sqlite;
        const std::string json = broken.json != nullptr ? broken.json : "(null)";

        EXPECT_EQ(store_extra_headers(&connection, broken.json), -1) << json;
        EXPECT_EQ(log.take_one(), cannot_parse + broken.complaint) << json;
        EXPECT_EQ(sqlite.calls(), Lines{}) << json;
    }
    EXPECT_TRUE(connection.is_open());
}

/* Each allocation of the reading, the tree's own included, is made to fail once. */
TEST_F(StoreExtraHeaders, MemoryThatRunsOutWhileReadingIsReportedAndNothingIsWritten)
{
    int failures = 0;
    int result;

    for (;; failures++) {
        {
            const NewFaults faults(failures + 1);
            result = store_extra_headers(&connection, R"({"X-A":"1","X-B":{"c":"d"}})");
        }
        if (!NewFaults::has_failed)
            break;
        ASSERT_EQ(result, -1) << failures;
        ASSERT_EQ(log.take_one(), cannot_parse + "std::bad_alloc") << failures;
        ASSERT_EQ(store.rows(), Lines{}) << failures;
    }
    EXPECT_EQ(result, 0);
    EXPECT_GT(failures, 4); /* the tree, the nodes, both arrays */
    EXPECT_EQ(store.rows().size(), 2U);
}

} // namespace

} // namespace kolmo::testing
