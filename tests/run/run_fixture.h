/*
 * run_fixture: whole runs of the real program, on its real paths and against a real server.
 *
 * Before each test the panel's database is empty but for its tables, and the files are as panel_world.h says.
 * A test prepares its situation, calls run() and says what should have come of it; a line on a stream or
 * to syslog that it does not name fails it.
 */
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/run/panel_world.h"
#include "tests/support/panel_database.h"
#include "tests/support/program_run.h"
#include "tests/support/syslog_receiver.h"

namespace kolmo::testing
{

/* One message of a run. */
struct Said {
    enum class Kind { logged, reported, reported_with_errno, printed } kind;
    std::string text;
};

/* To syslog as mail.err, and copied to standard error. */
inline Said logged(const std::string &text)
{
    return {Said::Kind::logged, text};
}

/* On standard error and on standard output. */
inline Said reported(const std::string &text)
{
    return {Said::Kind::reported, text};
}

/* The same, and the system error may follow that the database's client library left behind in errno. */
inline Said reported_with_errno(const std::string &text)
{
    return {Said::Kind::reported_with_errno, text};
}

/* On standard error alone, as it stands. */
inline Said printed(const std::string &text)
{
    return {Said::Kind::printed, text};
}

inline const std::string program_name = "mail_responders_rebuild";

class RunTest : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    /* The program, already started; its argv[0] is program_name unless the options have another. */
    [[nodiscard]] static std::unique_ptr<Program> start(ProgramOptions options = {});

    [[nodiscard]] static ProgramResult run(const ProgramOptions &options = {});

    /* The exit status, both streams whole and every datagram; `ident` is what the log lines begin with. */
    void expect_result(ProgramResult result, int status, const std::vector<Said> &messages = {},
                       const std::string &ident = program_name);

    /* run() and expect_result() in one, for a run that needs no more. */
    void expect_run(int status, const std::vector<Said> &messages = {});

    /* Every row of the stores, in any order. */
    static void expect_responders(std::vector<std::string> rows);
    static void expect_handlers(std::vector<std::string> rows);

    /* The server's socket under another path until the test ends. */
    void move_socket(const std::string &path);

    /* A domain with mail service and a mailbox info with a default autoresponder; the domain's id. */
    int add_simple_domain(const std::string &name);

    std::unique_ptr<PanelDatabase> panel;
    std::unique_ptr<SyslogReceiver> syslog;

private:
    std::string moved_socket_;
};

} // namespace kolmo::testing
