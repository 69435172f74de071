/*
 * The setting with the extra headers of every automatic reply.
 */
#include "tests/run/run_fixture.h"

#include <ostream>

namespace kolmo::testing
{

namespace
{

class HeadersRun : public RunTest
{
protected:
    void expect_headers(const std::string &json, const std::vector<std::string> &rows)
    {
        panel->set_reply_headers(json);
        expect_run(0);
        expect_responders(rows);
    }
};

struct BrokenSetting {
    const char *name;
    std::string json;
    std::string complaint;
};

std::ostream &operator<<(std::ostream &stream, const BrokenSetting &broken)
{
    return stream << broken.name;
}

/* A valid object whose text is so long. */
std::string object_of_length(std::size_t length)
{
    const std::string head = "{\"X-Long\": \"";
    const std::string tail = "\"}";

    return head + std::string(length - head.size() - tail.size(), 'v') + tail;
}

const BrokenSetting broken_settings[] = {
    {"NoJson", "X-One: 1", "<unspecified file>(1): expected value"},
    {"TextBehindTheObject", "{\"X-One\": \"1\"} and more", "<unspecified file>(1): garbage after data"},
    {"TextBehindTheObjectOnLineThree", "{\"X-One\":\n \"1\"}\n;",
     "<unspecified file>(3): garbage after data"},
    {"Unfinished", "{\"X-One\": \"1\"", "<unspecified file>(1): expected '}' or ','"},
    {"BlanksOnly", "   ", "<unspecified file>(1): expected value"},
    {"CutAt4095Bytes", object_of_length(4096), "<unspecified file>(1): expected '}' or ','"},
    {"CutInItsText", object_of_length(5000), "<unspecified file>(1): unterminated string"},
};

class BrokenHeadersRun : public RunTest, public ::testing::WithParamInterface<BrokenSetting>
{
};

} // namespace

TEST_F(HeadersRun, MembersBecomeRowsInTheirOrder)
{
    panel->set_reply_headers("{\"X-Second\": \"2\", \"X-First\": \"1\"}");

    expect_run(0);
    EXPECT_EQ(query_store(responder_store, "SELECT name, value FROM extra_headers ORDER BY rowid"),
              (std::vector<std::string>{"X-Second,2", "X-First,1"}));
}

TEST_F(HeadersRun, OtherValuesThanStringsAreTakenAsWritten)
{
    expect_headers("{\"A\": 30, \"B\": 1.50, \"C\": true, \"D\": false, \"E\": null, \"F\": -1e3}",
                   {header_row("A", "30"), header_row("B", "1.50"), header_row("C", "true"),
                    header_row("D", "false"), header_row("E", "null"), header_row("F", "-1e3")});
}

TEST_F(HeadersRun, ObjectsAndArraysHaveEmptyValues)
{
    expect_headers("{\"A\": {\"x\": \"y\"}, \"B\": [\"z\"], \"C\": {}}",
                   {header_row("A", ""), header_row("B", ""), header_row("C", "")});
}

TEST_F(HeadersRun, EscapesAndSpecialCharactersAreResolved)
{
    expect_headers("{\"X-\\u00fc\": \"a\\n\\\"b\\\" it's 100%\", \"X-Dash\": \"–\"}",
                   {header_row("X-ü", "a\n\"b\" it's 100%"), header_row("X-Dash", "–")});
}

TEST_F(HeadersRun, LaterMemberOfTheSameNameReplacesTheEarlierOne)
{
    expect_headers("{\"A\": \"1\", \"A\": \"2\"}", {header_row("A", "2")});
}

TEST_F(HeadersRun, ArrayGivesValuesWithoutANameAndATextGivesNothing)
{
    expect_headers("[\"1\"]", {header_row("", "1")});
    expect_headers("\"text\"", {});
    expect_headers("5", {});
}

TEST_F(HeadersRun, EmptyObjectWritesNothing)
{
    expect_headers("{}", {});
}

TEST_F(HeadersRun, BlanksAroundTheObjectDoNotMatter)
{
    expect_headers(" \n\t{ \"A\" : \"1\" }\n ", {header_row("A", "1")});
}

TEST_F(HeadersRun, EmptySettingWritesNothing)
{
    expect_headers("", {});
}

TEST_F(HeadersRun, NullSettingWritesNothing)
{
    panel->set_reply_headers({});

    expect_run(0);
    expect_responders({});
}

TEST_F(HeadersRun, SettingOfAnotherNodeSectionOrNameIsNotUsed)
{
    panel->execute("INSERT INTO ServiceNodeConfiguration VALUES "
                   "('auto_reply_headers', '{\"A\": \"1\"}', 2, 'mailServer'), "
                   "('auto_reply_headers', '{\"B\": \"1\"}', 1, 'webServer'), "
                   "('reply_headers', '{\"C\": \"1\"}', 1, 'mailServer')");

    expect_run(0);
    expect_responders({});
}

TEST_F(HeadersRun, SettingOf4095BytesIsReadWhole)
{
    panel->set_reply_headers(object_of_length(4095));

    expect_run(0);
    EXPECT_EQ(query_store(responder_store, "SELECT length(value) FROM extra_headers"),
              std::vector<std::string>{std::to_string(4095 - object_of_length(14).size())});
}

TEST_P(BrokenHeadersRun, EndsTheRunAfterTheDomainsAndWritesNoHeader)
{
    (void)add_simple_domain("one.example");
    panel->set_reply_headers(GetParam().json);

    expect_run(255, {logged("Unable to parse auto-reply headers json: " + GetParam().complaint)});
    expect_responders({reply_row("info@one.example")});
    expect_handlers({handler_row("info@one.example")});
}

INSTANTIATE_TEST_SUITE_P(Headers, BrokenHeadersRun, ::testing::ValuesIn(broken_settings),
                         [](const auto &broken) { return std::string(broken.param.name); });

} // namespace kolmo::testing
