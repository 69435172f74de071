#include "common/report_error.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/alloc_faults.h"
#include "tests/support/output_capture.h"

namespace kolmo::testing
{

namespace
{

using ::testing::ExitedWithCode;
using ::testing::KilledBySignal;

/* The line that follows a message after a missing file, newline included. */
const std::string missing_file_line = std::string("\nSystem error 2: ") + std::strerror(ENOENT) + '\n';

[[gnu::format(printf, 3, 4)]] void report_list(int exit_code, int flag, const char *format, ...)
{
    std::va_list arguments;

    va_start(arguments, format);
    vreport_error(exit_code, flag, format, arguments);
    va_end(arguments);
}

/* Reports text with errno as given; both streams must agree on what they print, which is returned. */
std::string reported(const std::string &text, int error)
{
    const Output output = output_of([&] {
        errno = error;
        report_error(0, 0, "%s", text.c_str());
    });

    EXPECT_EQ(output.err, output.out);
    return output.err;
}

class ReportError : public ::testing::Test
{
public:
    ReportError(const ReportError &) = delete;
    ReportError &operator=(const ReportError &) = delete;

protected:
    ReportError() = default;
    ~ReportError() override
    {
        error_program_path = nullptr;
        errno = saved_errno_;
    }

private:
    int saved_errno_ = errno;
};

using PrintErrorMessage = ReportError;

TEST_F(ReportError, SystemErrorFollowsOnBothStreamsAndTheCallReturns)
{
    const Output output = output_of([] {
        errno = ENOENT;
        report_error(0, 0, "short %s %d", "message", 1);
    });

    EXPECT_EQ(output.err, "short message 1" + missing_file_line);
    EXPECT_EQ(output.out, output.err);
}

TEST_F(ReportError, StandardErrorComesFirst)
{
    EXPECT_EXIT(
        {
            break_standard_output();
            errno = 0;
            report_error(0, 0, "text");
        },
        KilledBySignal(SIGPIPE), "^text\n$");
}

TEST_F(ReportError, ListFunctionReportsTheSame)
{
    EXPECT_EQ(output_of([] {
                  errno = ENOENT;
                  report_list(0, 0, "list %s", "text");
              }).err,
              "list text" + missing_file_line);
}

TEST_F(ReportError, NoSystemErrorLineWithoutErrno)
{
    EXPECT_EQ(reported("text", 0), "text\n");
}

TEST_F(ReportError, TrailingNewlineIsNotDoubled)
{
    EXPECT_EQ(reported("text\n", 0), "text\n");
    EXPECT_EQ(reported("\n", 0), "\n");
}

TEST_F(ReportError, SystemErrorOfATextWithANewlineStandsAfterABlankLine)
{
    EXPECT_EQ(reported("text\n", ENOENT), "text\n" + missing_file_line);
}

TEST_F(ReportError, FlagHasNoEffect)
{
    const Output output = output_of([] {
        errno = ENOENT;
        report_error(0, 1, "text");
    });

    EXPECT_EQ(output.err, "text" + missing_file_line);
    EXPECT_EQ(output.out, output.err);
}

TEST_F(ReportError, ErrnoIsTheCallersWhateverFormattingDoes)
{
    /* A wide character that the C locale cannot write makes formatting fail with an errno of its own. */
    const Output output = output_of([] {
        errno = ENOENT;
        report_error(0, 0, "name %ls", L"\u00e9");
    });

    EXPECT_EQ(errno, ENOENT);
    EXPECT_NE(output.err.find("System error 2: "), std::string::npos) << output.err;
}

TEST_F(ReportError, FailedFormattingIsNotReportedAsTheCallersError)
{
    const Output output = output_of([] {
        errno = 0;
        report_error(0, 0, "name %ls", L"\u00e9");
    });

    EXPECT_EQ(output.err.find("System error"), std::string::npos) << output.err;
}

TEST_F(ReportError, SystemErrorIsLeftOutWholeWhenItDoesNotFit)
{
    const std::size_t fitting = 4096 - missing_file_line.size(); /* its newline needs no room, the end does */
    const std::string fits(fitting, 'm');
    const std::string does_not(fitting + 1, 'm');

    EXPECT_EQ(reported(fits, ENOENT), fits + missing_file_line);
    EXPECT_EQ(reported(does_not, ENOENT), does_not + '\n');
}

TEST_F(ReportError, LongMessagesArePrintedWholeAndAlone)
{
    for (const std::size_t length : {4095u, 4096u, 4097u, 100000u}) {
        const std::string text(length, 'l');

        EXPECT_EQ(reported(text, ENOENT), text + '\n') << length;
        EXPECT_EQ(reported(text, 0), text + '\n') << length;
    }
}

TEST_F(ReportError, MessageIsCutWhenThereIsNoMemoryForALongOne)
{
    const std::string text(5000, 'l');
    const Output output = output_of([&] {
        const AllocFaults faults(2);
        errno = ENOENT;
        report_error(0, 0, "%s", text.c_str());
    });

    EXPECT_EQ(output.err, text.substr(0, 4095) + '\n');
    EXPECT_EQ(output.out, output.err);
}

TEST_F(ReportError, FixedTextIsPrintedWhenThereIsNoMemoryAtAll)
{
    const Output output = output_of([] {
        const AllocFaults faults(1);
        errno = ENOENT;
        report_error(0, 0, "text");
    });

    EXPECT_EQ(output.err, "Can't allocate memory for error message\n");
    EXPECT_EQ(output.out, output.err);
}

TEST_F(ReportError, FixedTextEndsTheProcessToo)
{
    EXPECT_EXIT(
        {
            const AllocFaults faults(1);
            report_error(3, 0, "text");
        },
        ExitedWithCode(3), "^Can't allocate memory for error message\n$");
}

TEST_F(ReportError, ExitCodeEndsTheProcessAfterPrinting)
{
    const Output output = output_of([] {
        EXPECT_EXIT(
            {
                errno = 0;
                report_error(1, 0, "fatal");
            },
            ExitedWithCode(1), "^fatal\n$");
    });

    EXPECT_EQ(output.out, "fatal\n");
}

/* What was left for the end of the process is done. */
TEST_F(ReportError, EndOfTheProcessIsAnExit)
{
    const auto say_so = [] {
        (void)std::atexit([] { (void)!write(STDERR_FILENO, "left\n", 5); });
        errno = 0;
    };
    const Output output = output_of([&] {
        EXPECT_EXIT((say_so(), report_error(1, 0, "fatal")), ExitedWithCode(1), "^fatal\nleft\n$");
        EXPECT_EXIT((say_so(), report_fatal("fatal")), ExitedWithCode(1), "^fatal\nleft\n$");
    });

    EXPECT_EQ(output.out, "fatal\nfatal\n");
}

TEST_F(ReportError, ProgramPathGivesItsBaseNameAsPrefix)
{
    error_program_path = "/opt/tools/tool";
    EXPECT_EQ(reported("text", 0), "tool: text\n");
    error_program_path = "tool";
    EXPECT_EQ(reported("text", 0), "tool: text\n");
}

TEST_F(PrintErrorMessage, PrintsTheTextAsItStandsAndReturnsZero)
{
    int result = -1;
    const Output output = output_of([&] {
        errno = ENOENT;
        result = print_error_message("100%s", 0, 0);
    });

    EXPECT_EQ(result, 0);
    EXPECT_EQ(output.err, "100%s\n");
    EXPECT_EQ(output.out, "100%s\n");
}

TEST_F(PrintErrorMessage, EmptyTextIsALineOfItsOwn)
{
    EXPECT_EQ(output_of([] { (void)print_error_message("", 0, 0); }).err, "\n");
}

TEST_F(PrintErrorMessage, ExitCodeEndsTheProcess)
{
    EXPECT_EXIT((void)print_error_message("fatal\n", 255, 1), ExitedWithCode(255), "^fatal\n$");
}

} // namespace

} // namespace kolmo::testing
