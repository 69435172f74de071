/* The runner of utilities by path, with real programs. */
#include "exec/panel_utility.h"

#include <cerrno>
#include <string>

#include <unistd.h>

#include "tests/exec/exec_support.h"

namespace kolmo::testing
{

namespace
{

/* Both screens of this process are read; errno is clear, as it is at the program's start. */
class PanelUtility : public ExecTest
{
protected:
    PanelUtility() { errno = 0; }

    StreamCapture out{STDOUT_FILENO};
    StreamCapture err{STDERR_FILENO};
};

const std::string failed = std::string(helper) + " execution failed:\n";

TEST_F(PanelUtility, SuccessPrintsNothingWhateverTheUtilityWrote)
{
    EXPECT_EQ(0, run_utility_path(helper, "out", "100", "err", "100", nullptr));
    EXPECT_EQ("", out.text());
    EXPECT_EQ("", err.text());
}

TEST_F(PanelUtility, FailureShowsItsOutputUnchangedAndThenTheReport)
{
    EXPECT_EQ(1, run_utility_path(helper, "say", "no such mailbox", "out", "4", "exit", "1", nullptr));
    EXPECT_EQ("oooo" + failed + "no such mailbox\n", err.text());
    EXPECT_EQ(failed + "no such mailbox\n", out.text());
}

TEST_F(PanelUtility, FailureWithoutAWordIsReportedWithEmptyText)
{
    EXPECT_EQ(2, run_utility_path(helper, "exit", "2", nullptr));
    EXPECT_EQ(failed, err.text());
    EXPECT_EQ(failed, out.text());
}

TEST_F(PanelUtility, MissingUtilityIsReportedWith255)
{
    EXPECT_EQ(255, run_utility_path("/nonexistent/utility", nullptr));
    EXPECT_EQ("/nonexistent/utility execution failed:\n"
              "fork_execv: execv(\"/nonexistent/utility\") failed: No such file or directory\n",
              err.text());
}

TEST_F(PanelUtility, KilledUtilityIsReportedAndLogged)
{
    EXPECT_EQ(-1, run_utility_path(helper, "signal", "9", nullptr));
    EXPECT_EQ(failed, err.text());
    EXPECT_NE(std::string::npos, log.take_one().find("killed by signal 9"));
}

TEST_F(PanelUtility, QuietRunLeavesTheFailureToTheCaller)
{
    EXPECT_EQ(3, exec_utility(helper, Orders({"out", "9", "err", "9", "exit", "3"}), true));
    EXPECT_EQ("", out.text());
    EXPECT_EQ("", err.text());
}

TEST_F(PanelUtility, ArgumentsFollowThePathInTheirOrder)
{
    EXPECT_EQ(1, run_utility_path(helper, "argv", "one", "", "three", nullptr));
    EXPECT_EQ(std::string(helper) + "\nargv\none\n\nthree\n" + failed, err.text());
}

#define TEN "0", "1", "2", "3", "4", "5", "6", "7", "8", "9"
#define NINETY TEN, TEN, TEN, TEN, TEN, TEN, TEN, TEN, TEN

/* What the utility prints when it gets its path, "argv" and so many digits, counting on from 0. */
std::string argument_list(int digits)
{
    std::string list = std::string(helper) + "\nargv\n";

    for (int i = 0; i < digits; i++)
        list += std::to_string(i % 10) + '\n';
    return list + failed;
}

TEST_F(PanelUtility, NinetyNineArgumentsAreTaken)
{
    EXPECT_EQ(1, run_utility_path(helper, "argv", NINETY, "0", "1", "2", "3", "4", "5", "6", "7", nullptr));
    EXPECT_EQ(argument_list(98), err.text());
}

TEST_F(PanelUtility, FurtherArgumentsAreDroppedSilently)
{
    EXPECT_EQ(1, run_utility_path(helper, "argv", NINETY, TEN, TEN, nullptr));
    EXPECT_EQ(argument_list(98), err.text());
}

TEST_F(PanelUtility, NameWithASlashIsRefused)
{
    const std::string text = "Utility name 'bin/sh' is invalid. Use only utility name without path.\n";
    const char *const argv[] = {"sh", nullptr};

    EXPECT_EQ(-1, run_panel_utility("bin/sh", nullptr));
    EXPECT_EQ(text, err.text());
    EXPECT_EQ(text, out.text());
    EXPECT_EQ(-1, run_panel_utility_argv("bin/sh", argv));
    EXPECT_EQ(text + text, err.text());
}

TEST_F(PanelUtility, NameTooLongForAPathFailsLikeOneThatCannotBeExecuted)
{
    const std::string name(5000, 'n');

    EXPECT_EQ(255, run_panel_utility(name.c_str(), nullptr));
    const std::string path = "/opt/qsx/admin/sbin/" + name;
    EXPECT_EQ(path + " execution failed:\nfork_execv: execv(\"" + path + "\") failed: File name too long\n",
              err.text());
}

TEST_F(PanelUtility, PathTooLongIsNotCutToAnotherProgram)
{
    /* Cut at 4095 bytes, this would be the path of the helper. */
    std::string path = "../../.." + std::string(helper);
    path.insert(8, 4095 - path.size() - std::string("/usr/lib/kolmo-9.0/").size(), '/');
    path += "-but-longer";

    EXPECT_EQ(255, run_lib_utility(path.c_str(), nullptr));
    EXPECT_NE(std::string::npos, err.text().find("File name too long"));
}

} // namespace

} // namespace kolmo::testing
