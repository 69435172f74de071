#include "tests/run/run_fixture.h"

#include <algorithm>
#include <filesystem>

#include "tests/support/program_text.h"
#include "tests/support/sandbox.h"

namespace kolmo::testing
{

namespace
{

std::string with_newline(const std::string &text)
{
    return text.empty() || text.back() != '\n' ? text + '\n' : text;
}

/* Takes the system error out that stands behind `message` in what a stream got. */
void cut_system_error(std::string *stream, const std::string &message)
{
    const std::size_t found = stream->find(message);

    if (found == std::string::npos)
        return;

    const std::size_t end = found + message.size();

    stream->replace(end, std::string::npos,
                    replaced(stream->substr(end), "^\n?System error [0-9]+: [^\n]*\n", ""));
}

} // namespace

void RunTest::SetUp()
{
    ASSERT_TRUE(in_sandbox()) << "run this in tools/sandbox";
    reset_panel_files();
    panel = std::make_unique<PanelDatabase>();
    panel->reset();
    syslog = std::make_unique<SyslogReceiver>();
}

void RunTest::TearDown()
{
    if (!moved_socket_.empty())
        std::filesystem::rename(moved_socket_, server_socket);
}

std::unique_ptr<Program> RunTest::start(ProgramOptions options)
{
    if (options.argv.empty())
        options.argv = {program_name};
    return std::make_unique<Program>(KOLMO_PROGRAM, options);
}

ProgramResult RunTest::run(const ProgramOptions &options)
{
    return start(options)->finish();
}

void RunTest::expect_result(ProgramResult result, int status, const std::vector<Said> &messages,
                            const std::string &ident)
{
    const std::string head = ident + '[' + std::to_string(result.pid) + "]: ";
    std::string out;
    std::string err;
    std::vector<std::string> datagrams;

    for (const Said &message : messages) {
        if (message.kind == Said::Kind::reported_with_errno) {
            cut_system_error(&result.out, with_newline(message.text));
            cut_system_error(&result.err, with_newline(message.text));
        }
        if (message.kind == Said::Kind::logged) {
            datagrams.push_back("<19>" + head + message.text);
            err += with_newline(head + message.text);
        } else if (message.kind == Said::Kind::printed) {
            err += message.text;
        } else {
            out += with_newline(message.text);
            err += with_newline(message.text);
        }
    }
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.out, out);
    EXPECT_EQ(result.err, err);
    EXPECT_EQ(syslog->take(), datagrams);
}

void RunTest::expect_run(int status, const std::vector<Said> &messages)
{
    expect_result(run(), status, messages);
}

void RunTest::expect_responders(std::vector<std::string> rows)
{
    std::sort(rows.begin(), rows.end());
    EXPECT_EQ(responder_rows(), rows);
}

void RunTest::expect_handlers(std::vector<std::string> rows)
{
    std::sort(rows.begin(), rows.end());
    EXPECT_EQ(handler_rows(), rows);
}

void RunTest::move_socket(const std::string &path)
{
    std::filesystem::rename(server_socket, path);
    moved_socket_ = path;
}

int RunTest::add_simple_domain(const std::string &name)
{
    const int domain = panel->add_domain(name);

    (void)panel->add_mailbox_with_responder(domain, "info");
    return domain;
}

} // namespace kolmo::testing
