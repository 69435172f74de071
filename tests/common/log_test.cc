#include "common/log.h"

#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/common/log_list.h"
#include "tests/support/environment.h"
#include "tests/support/fake_syslog.h"
#include "tests/support/output_capture.h"

namespace
{

pid_t faked_pid = 0; /* 0: the real one */

} // namespace

extern "C" {

pid_t __real_getpid();

pid_t __wrap_getpid()
{
    return faked_pid != 0 ? faked_pid : __real_getpid();
}

} // extern "C"

namespace kolmo::testing
{

namespace
{

using Lines = std::vector<std::string>;

/* The options, facility and ident of most tests do not matter. */
void init_console(const char *sink, int level = LOG_INFO)
{
    log_init(sink, level, LOG_MAIL, 0, "test");
}

void init_syslog(int level, int options = 0)
{
    log_init(nullptr, level, LOG_MAIL, options, "test");
}

/* Leaves the log as a program finds it, and nothing of it to the host's syslog. */
class LogTest : public ::testing::Test
{
public:
    LogTest(const LogTest &) = delete;
    LogTest &operator=(const LogTest &) = delete;

protected:
    LogTest() = default;
    ~LogTest() override
    {
        init_syslog(LOG_INFO);
        log_message = saved_message_;
        log_vmessage = saved_list_message_;
        program_invocation_short_name = saved_name_;
        faked_pid = 0;
    }

    FakeSyslog syslog_;
    EnvironmentVariable level_variable_{"KOLMO_LOG_LEVEL", nullptr};
    EnvironmentVariable trace_variable_{"KOLMO_LOG_TRACE_ID", nullptr};

private:
    LogSink saved_message_ = log_message;
    LogListSink saved_list_message_ = log_vmessage;
    char *saved_name_ = program_invocation_short_name;
};

using ConsoleLog = LogTest;
using SyslogLog = LogTest;

class TracedLog : public LogTest
{
protected:
    TracedLog()
    {
        program_invocation_short_name = name_;
        faked_pid = 4242;
    }

    char name_[16] = "mailer";
};

TEST_F(ConsoleLog, SinkNameChoosesTheStreamsInAnyCase)
{
    const struct {
        const char *sink;
        const char *err;
        const char *out;
    } rows[] = {
        {"stderr", "text 7\n", ""},
        {"STDERR", "text 7\n", ""},
        {"console", "text 7\n", "text 7\n"},
        {"Console", "text 7\n", "text 7\n"},
        {"file", "", ""},
        {"", "", ""},
        {"stderrs", "", ""},
        {"consoles", "", ""},
    };

    for (const auto &row : rows) {
        init_console(row.sink);
        const Output output = output_of([] { log_message(LOG_ERR, "%s %d", "text", 7); });
        EXPECT_EQ(output.err, row.err) << row.sink;
        EXPECT_EQ(output.out, row.out) << row.sink;
    }
}

TEST_F(ConsoleLog, StandardErrorComesFirst)
{
    init_console("console");
    EXPECT_EXIT(
        {
            break_standard_output();
            log_message(LOG_ERR, "text");
        },
        ::testing::KilledBySignal(SIGPIPE), "^text\n$");
}

TEST_F(ConsoleLog, ListFunctionPrintsTheSameOnBothStreams)
{
    init_console("console");
    const Output output = output_of([] { log_list(LOG_ERR, "%s %d %s", "list", 8, "end"); });

    EXPECT_EQ(output.err, "list 8 end\n");
    EXPECT_EQ(output.out, "list 8 end\n");
}

TEST_F(ConsoleLog, MessageThatEndsInANewlineGetsAnotherOne)
{
    init_console("stderr");
    EXPECT_EQ(output_of([] { log_message(LOG_ERR, "text\n"); }).err, "text\n\n");
}

TEST_F(ConsoleLog, PrioritiesAboveTheLevelAreNotPrinted)
{
    init_console("stderr", LOG_ERR);
    EXPECT_EQ(output_of([] {
                  log_message(LOG_WARNING, "warning");
                  log_message(LOG_ERR, "error");
                  log_message(LOG_EMERG, "emergency");
                  log_message(LOG_USER | LOG_ERR, "with a facility, a larger number");
              }).err,
              "error\nemergency\n");
}

TEST_F(ConsoleLog, SinkNameIsNotCopied)
{
    char sink[] = "stderr";

    init_console(sink);
    sink[0] = 'X';
    EXPECT_EQ(output_of([] { log_message(LOG_ERR, "text"); }).err, "");
}

TEST_F(ConsoleLog, SyslogIsNotTouched)
{
    init_console("stderr");
    log_set_level(LOG_DEBUG);
    EXPECT_EQ(output_of([] { log_message(LOG_ERR, "text"); }).err, "text\n");
    EXPECT_EQ(syslog_.take_calls(), Lines{});
    EXPECT_EQ(syslog_.take_lines(), Lines{});
}

TEST_F(ConsoleLog, OptionsAreNotStored)
{
    init_syslog(LOG_ERR, LOG_PERROR);
    log_init("stderr", LOG_ERR, LOG_MAIL, LOG_CONS, "test");
    EXPECT_EQ(log_get_options(), 0x21u);
}

TEST_F(ConsoleLog, EnvironmentRaisesTheLevel)
{
    const EnvironmentVariable variable("KOLMO_LOG_LEVEL", "7");

    init_console("stderr", LOG_ERR | LOG_LEVEL_FROM_ENVIRONMENT);
    EXPECT_EQ(output_of([] { log_message(LOG_DEBUG, "debug"); }).err, "debug\n");
}

TEST_F(SyslogLog, ProgramsOwnOptionsOpenItWithThePidAndTheMaskOfErrors)
{
    log_init(nullptr, LOG_ERR, LOG_MAIL, LOG_PERROR, "responders");
    EXPECT_EQ(syslog_.take_calls(), (Lines{"closelog", "openlog 0x21 16 responders", "setlogmask 0x0f"}));
}

TEST_F(SyslogLog, ErrorsPassTheMaskAndWarningsDoNot)
{
    init_syslog(LOG_ERR);
    log_message(LOG_WARNING, "warning");
    log_message(LOG_ERR, "error %d", 5);
    EXPECT_EQ(syslog_.take_lines(), Lines{"3 error 5"});
}

TEST_F(SyslogLog, NothingIsPrinted)
{
    init_syslog(LOG_ERR);
    const Output output = output_of([] { log_message(LOG_ERR, "error"); });

    EXPECT_EQ(output.err, "");
    EXPECT_EQ(output.out, "");
    EXPECT_EQ(syslog_.take_lines(), Lines{"3 error"});
}

TEST_F(SyslogLog, EveryMessageIsSentWhateverTheLevel)
{
    init_syslog(LOG_ERR);
    (void)setlogmask(LOG_UPTO(LOG_DEBUG)); /* only the mask sorts out, not the log function */
    log_message(LOG_DEBUG, "debug");
    EXPECT_EQ(syslog_.take_lines(), Lines{"7 debug"});
}

TEST_F(SyslogLog, ListFunctionSendsToo)
{
    init_syslog(LOG_ERR);
    log_list(LOG_ERR, "list %s", "text");
    EXPECT_EQ(syslog_.take_lines(), Lines{"3 list text"});
}

TEST_F(SyslogLog, MessageWithoutTraceIdIsNotCut)
{
    const std::string text(9000, 'x');

    init_syslog(LOG_ERR);
    log_message(LOG_ERR, "%s", text.c_str());
    EXPECT_EQ(syslog_.take_lines(), Lines{"3 " + text});
}

TEST_F(SyslogLog, OnlyThreeOptionsReachOpenlogAndAllAreStored)
{
    const struct {
        int options;
        const char *openlog;
        unsigned int stored;
    } rows[] = {
        {0x00, "openlog 0x01 16 test", 0x01u},
        {0x22, "openlog 0x23 16 test", 0x23u},
        {0x40, "openlog 0x01 16 test", 0x41u},
        {0xfe, "openlog 0x23 16 test", 0xffu},
    };

    for (const auto &row : rows) {
        init_syslog(LOG_ERR, row.options);
        EXPECT_EQ(syslog_.take_calls(), (Lines{"closelog", row.openlog, "setlogmask 0x0f"})) << row.options;
        EXPECT_EQ(log_get_options(), row.stored) << row.options;
    }
}

TEST_F(SyslogLog, FacilityIsPassedOn)
{
    log_init(nullptr, LOG_ERR, LOG_DAEMON, 0, "test");
    EXPECT_EQ(syslog_.take_calls()[1], "openlog 0x01 24 test");
}

TEST_F(SyslogLog, NullIdentIsTheNameTheProcessWasStartedBy)
{
    char name[] = "started-as";

    program_invocation_short_name = name;
    log_init(nullptr, LOG_ERR, LOG_MAIL, 0, nullptr);
    EXPECT_EQ(syslog_.ident(), "started-as");
}

TEST_F(SyslogLog, IdentIsCutAt63Characters)
{
    log_init(nullptr, LOG_ERR, LOG_MAIL, 0, std::string(64, 'i').c_str());
    EXPECT_EQ(syslog_.ident(), std::string(63, 'i'));
}

TEST_F(SyslogLog, IdentIsCopied)
{
    char ident[] = "mine";

    log_init(nullptr, LOG_ERR, LOG_MAIL, 0, ident);
    ident[0] = 'X';
    EXPECT_EQ(syslog_.ident(), "mine");
}

TEST_F(SyslogLog, SecondInitClosesAndReplacesTheIdent)
{
    log_init(nullptr, LOG_ERR, LOG_MAIL, 0, "first");
    (void)syslog_.take_calls();
    log_init(nullptr, LOG_DEBUG, LOG_MAIL, 0, "second");
    EXPECT_EQ(syslog_.take_calls(), (Lines{"closelog", "openlog 0x01 16 second", "setlogmask 0xff"}));
    EXPECT_EQ(syslog_.ident_at_close(), "first");
    EXPECT_EQ(syslog_.ident(), "second");
}

TEST_F(SyslogLog, InitWithASinkSwitchesBackToTheConsoleAndLeavesSyslogOpen)
{
    init_syslog(LOG_ERR);
    (void)syslog_.take_calls();
    init_console("stderr");
    EXPECT_EQ(output_of([] {
                  log_message(LOG_ERR, "text");
                  log_list(LOG_ERR, "list");
              }).err,
              "text\nlist\n");
    EXPECT_EQ(syslog_.take_calls(), Lines{});
    EXPECT_EQ(syslog_.take_lines(), Lines{});
}

TEST_F(SyslogLog, LevelSetsTheMaskAndTheEnvironmentRaisesItOnRequest)
{
    const struct {
        int level;
        const char *variable;
        const char *call;
    } rows[] = {
        {0x00, nullptr, "setlogmask 0x01"}, {0x03, nullptr, "setlogmask 0x0f"},
        {0x07, nullptr, "setlogmask 0xff"}, {0x13, nullptr, "setlogmask 0x0f"}, /* other bits do not count */
        {0x0b, nullptr, "setlogmask 0x0f"}, {0x0b, "6", "setlogmask 0x7f"},
        {0x0b, "2", "setlogmask 0x0f"},     {0x0b, "9", "setlogmask 0x0f"},
        {0x0b, "66", "setlogmask 0x0f"},    {0x0b, "", "setlogmask 0x0f"},
        {0x0b, "7", "setlogmask 0xff"},     {0x08, "0", "setlogmask 0x01"},
        {0x08, "x", "setlogmask 0x01"},     {0x0b, "8", "setlogmask 0x0f"},
        {0x0b, "/", "setlogmask 0x0f"},     {0x0b, "x", "setlogmask 0x0f"},
        {0x03, "6", "setlogmask 0x0f"},     {0x03, "7", "setlogmask 0x0f"},
    };

    init_syslog(LOG_ERR);
    (void)syslog_.take_calls();
    for (const auto &row : rows) {
        const EnvironmentVariable variable("KOLMO_LOG_LEVEL", row.variable);

        log_set_level(row.level);
        EXPECT_EQ(syslog_.take_calls(), Lines{row.call})
            << row.level << ' ' << (row.variable != nullptr ? row.variable : "(unset)");
    }
}

TEST_F(SyslogLog, TraceIdOfTheEnvironmentIsIgnoredWithoutTheOption)
{
    const EnvironmentVariable variable("KOLMO_LOG_TRACE_ID", "T1");

    init_syslog(LOG_ERR);
    log_message(LOG_ERR, "text");
    EXPECT_EQ(syslog_.take_lines(), Lines{"3 text"});
}

TEST_F(SyslogLog, NoTraceIdIsExportedWithoutTheOption)
{
    const EnvironmentVariable variable("KOLMO_LOG_TRACE_ID", "");

    init_syslog(LOG_ERR);
    EXPECT_EQ(variable.get(), "");
}

TEST_F(TracedLog, IdIsMadeOfNameAndProcessIdAndExported)
{
    init_syslog(LOG_ERR, LOG_TRACE_ID);
    log_message(LOG_ERR, "text %d", 1);
    log_list(LOG_ERR, "list");
    EXPECT_EQ(syslog_.take_lines(), (Lines{"3 M4242: text 1", "3 M4242: list"}));
    EXPECT_EQ(trace_variable_.get(), "M4242");
}

TEST_F(TracedLog, EmptyVariableIsReplaced)
{
    const EnvironmentVariable variable("KOLMO_LOG_TRACE_ID", "");

    init_syslog(LOG_ERR, LOG_TRACE_ID);
    log_message(LOG_ERR, "text");
    EXPECT_EQ(syslog_.take_lines(), Lines{"3 M4242: text"});
    EXPECT_EQ(variable.get(), "M4242");
}

TEST_F(TracedLog, ProgramWithoutANameHasNoId)
{
    name_[0] = '\0';
    init_syslog(LOG_ERR, LOG_TRACE_ID);
    log_message(LOG_ERR, "text");
    EXPECT_EQ(syslog_.take_lines(), Lines{"3 text"});
}

TEST_F(TracedLog, InheritedIdIsKeptAndCutAt63Characters)
{
    for (const unsigned int length : {1U, 63U, 64U}) {
        const std::string inherited(length, 't');
        const EnvironmentVariable variable("KOLMO_LOG_TRACE_ID", inherited.c_str());

        init_syslog(LOG_ERR, LOG_TRACE_ID);
        log_message(LOG_ERR, "text");
        EXPECT_EQ(syslog_.take_lines(), Lines{"3 " + inherited.substr(0, 63) + ": text"});
        EXPECT_EQ(variable.get(), inherited);
    }
}

TEST_F(TracedLog, MessageIsCutAt8191CharactersWithTheId)
{
    init_syslog(LOG_ERR, LOG_TRACE_ID);
    log_message(LOG_ERR, "%s", std::string(9000, 'x').c_str());
    EXPECT_EQ(syslog_.take_lines(), Lines{"3 M4242: " + std::string(8191 - 7, 'x')});
}

TEST_F(TracedLog, MessageIsNotTakenForAFormat)
{
    init_syslog(LOG_ERR, LOG_TRACE_ID);
    log_message(LOG_ERR, "%s", "100%s");
    EXPECT_EQ(syslog_.take_lines(), Lines{"3 M4242: 100%s"});
}

TEST_F(TracedLog, MaskSortsOutTracedMessagesToo)
{
    init_syslog(LOG_ERR, LOG_TRACE_ID);
    log_message(LOG_WARNING, "warning");
    EXPECT_EQ(syslog_.take_lines(), Lines{});
}

} // namespace

} // namespace kolmo::testing
