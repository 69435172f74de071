#include "restore/extra_reply_headers.h"

#include <cstddef>
#include <new>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "responder_store/responder_db.h"
#include "tests/support/responder_store_fixture.h"

namespace kolmo
{

namespace
{

using namespace testing;

const std::string cannot_parse = "3 Unable to parse auto-reply headers json: ";

/* What the writer is asked while one of these lives; given a result, it is replaced by it. */
class WriterWatch
{
public:
    WriterWatch() { current = this; }
    ~WriterWatch() { current = nullptr; }
    WriterWatch(const WriterWatch &) = delete;
    WriterWatch &operator=(const WriterWatch &) = delete;

    int calls = 0;
    const StoreConnection *connection = nullptr;
    Lines pairs; /* "name=value" */
    int count = -1;
    int result = 0;
    bool throws = false;

    static WriterWatch *current;
};

WriterWatch *WriterWatch::current;

/* While it lives, the nth "new" in what is linked statically finds no memory. */
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

extern "C" {

void *__real__Znwm(std::size_t size);

/* operator new */
void *__wrap__Znwm(std::size_t size)
{
    if (NewFaults::left > 0 && --NewFaults::left == 0) {
        NewFaults::has_failed = true;
        throw std::bad_alloc();
    }
    return __real__Znwm(size);
}

int __real__ZN5kolmo30responder_db_add_extra_headersEPNS_15StoreConnectionEPKPKcS5_i(
    StoreConnection *connection, const char *const *names, const char *const *values, int count);

/* responder_db_add_extra_headers */
int __wrap__ZN5kolmo30responder_db_add_extra_headersEPNS_15StoreConnectionEPKPKcS5_i(
    StoreConnection *connection, const char *const *names, const char *const *values, int count)
{
    WriterWatch *const watch = WriterWatch::current;

    NewFaults::left = 0; /* the reading is over */
    if (watch == nullptr)
        return __real__ZN5kolmo30responder_db_add_extra_headersEPNS_15StoreConnectionEPKPKcS5_i(
            connection, names, values, count);
    watch->calls++;
    watch->connection = connection;
    watch->count = count;
    for (int i = 0; i < count; i++)
        watch->pairs.push_back(std::string(names[i]) + '=' + values[i]);
    if (watch->throws)
        throw std::runtime_error("the writer's own");
    return watch->result;
}

} // extern "C"

namespace
{

class StoreExtraHeaders : public ResponderStoreTest
{
protected:
    StoreConnection connection = store.open();
};

struct Setting {
    const char *json;
    Lines pairs;
};

const Setting settings[] = {
    {R"({"X-A":"1","X-B":"2"})", {"X-A=1", "X-B=2"}},
    {R"({"X-B":"2","X-A":"1"})", {"X-B=2", "X-A=1"}}, /* in the document's order */
    {" \n{ \"X-A\" : \"1\" }\t\n", {"X-A=1"}},
    {R"({"A":"a\"b\\c\/d\n\u00fc"})", {"A=a\"b\\c/d\n\xc3\xbc"}},
    {R"({"X-\u00fc":"\ud83d\ude00"})", {"X-\xc3\xbc=\xf0\x9f\x98\x80"}},
    {R"({"A":30})", {"A=30"}}, /* as written */
    {R"({"A":1.50})", {"A=1.50"}},
    {R"({"A":-0.5e+10})", {"A=-0.5e+10"}},
    {R"({"A":123456789012345678901234567890})", {"A=123456789012345678901234567890"}},
    {R"({"A":true})", {"A=true"}},
    {R"({"A":false})", {"A=false"}},
    {R"({"A":null})", {"A=null"}},
    {R"({"A":{"B":"b"},"C":"c"})", {"A=", "C=c"}},
    {R"({"A":["b"],"C":"c"})", {"A=", "C=c"}},
    {R"({"A":{}})", {"A="}},
    {R"({"A":""})", {"A="}},
    {R"({"":"a"})", {"=a"}},
    {R"({"a.b":"c"})", {"a.b=c"}}, /* a name is no path */
    {R"({"A":"1","B":"2","A":"3"})", {"A=1", "B=2", "A=3"}},
    {R"(["a",1,{"b":"c"}])", {"=a", "=1", "="}},
    {"{}", {}},
    {"[]", {}},
    {R"("text")", {}},
    {"5", {}},
    {"true", {}},
    {"null", {}},
};

TEST_F(StoreExtraHeaders, MembersOfTheRootGoToTheWriterAsNamesAndValues)
{
    for (const Setting &setting : settings) {
        const WriterWatch writer;

        EXPECT_EQ(store_extra_headers(&connection, setting.json), 0) << setting.json;
        EXPECT_EQ(writer.calls, 1) << setting.json; /* also when there are none */
        EXPECT_EQ(writer.connection, &connection);
        EXPECT_EQ(writer.pairs, setting.pairs) << setting.json;
        EXPECT_EQ(writer.count, static_cast<int>(setting.pairs.size())) << setting.json;
    }
}

/* Pointers into short texts that lie within their nodes must hold as well. */
TEST_F(StoreExtraHeaders, HundredsOfMembersArriveInOrder)
{
    std::string json = "{";
    Lines expected;

    for (int i = 0; i < 500; i++) {
        const std::string text = std::to_string(i);

        json += (i != 0 ? ",\"" : "\"") + text + "\":\"v" + text + '"';
        expected.push_back(text + "=v" + text);
    }
    json += '}';

    const WriterWatch writer;

    EXPECT_EQ(store_extra_headers(&connection, json.c_str()), 0);
    EXPECT_EQ(writer.pairs, expected);
}

TEST_F(StoreExtraHeaders, PairsBecomeRows)
{
    EXPECT_EQ(store_extra_headers(&connection, R"({"X-B":"2","X-A":"1"})"), 0);
    EXPECT_EQ(store.rows(), (Lines{"extra_headers: X-B|2", "extra_headers: X-A|1"}));
}

TEST_F(StoreExtraHeaders, WritersResultIsHandedOn)
{
    WriterWatch writer;

    for (const int result : {-1, 7}) {
        writer.result = result;
        EXPECT_EQ(store_extra_headers(&connection, "{}"), result);
    }
}

TEST_F(StoreExtraHeaders, FailingWriterReportsForItself)
{
    store.execute("DROP TABLE extra_headers");

    EXPECT_EQ(store_extra_headers(&connection, R"({"A":"1"})"), -1);
    EXPECT_EQ(log.take_one(),
              "3 Unable to prepare SQL statement for query 'REPLACE INTO extra_headers VALUES (?, ? "
              " );': no such table: extra_headers");
}

/* Only the reading is guarded: whatever the writer does is no failure to parse. */
TEST_F(StoreExtraHeaders, TroubleOfTheWriterIsNotTakenForABrokenSetting)
{
    WriterWatch writer;

    writer.throws = true;
    EXPECT_THROW((void)store_extra_headers(&connection, "{}"), std::runtime_error);
    EXPECT_EQ(log.take(), Lines{});
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
        const WriterWatch writer;
        const std::string json = broken.json != nullptr ? broken.json : "(null)";

        EXPECT_EQ(store_extra_headers(&connection, broken.json), -1) << json;
        EXPECT_EQ(log.take_one(), cannot_parse + broken.complaint) << json;
        EXPECT_EQ(writer.calls, 0) << json;
    }
    EXPECT_TRUE(connection.is_open());
}

/* Each allocation of the reading, the tree's own included, is made to fail once. */
TEST_F(StoreExtraHeaders, MemoryThatRunsOutWhileReadingIsReportedAndNothingIsWritten)
{
    const WriterWatch writer;
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
        ASSERT_EQ(writer.calls, 0) << failures;
    }
    EXPECT_EQ(result, 0);
    EXPECT_GT(failures, 4); /* the tree, the nodes, both arrays */
    EXPECT_EQ(writer.calls, 1);
}

} // namespace

} // namespace kolmo
