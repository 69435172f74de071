/* The runner of utilities by path, with real programs. */
#include "exec/panel_utility.h"

#include <string>

#include "tests/exec/exec_support.h"

namespace kolmo::testing
{

namespace
{

using PanelUtility = ExecTest;

const std::string failed = std::string(helper) + " execution failed:\n";

TEST_F(PanelUtility, SuccessPrintsNothingWhateverTheUtilityWrote)
{
    const Observed seen =
        observe([] { return run_utility_path(helper, "out", "100", "err", "100", nullptr); });

    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.out, "");
    EXPECT_EQ(seen.err, "");
}

TEST_F(PanelUtility, FailureShowsItsOutputUnchangedAndThenTheReport)
{
    const Observed seen = observe(
        [] { return run_utility_path(helper, "say", "no such mailbox", "out", "4", "exit", "1", nullptr); });

    EXPECT_EQ(seen.result, 1);
    EXPECT_EQ(seen.err, "oooo" + failed + "no such mailbox\n");
    EXPECT_EQ(seen.out, failed + "no such mailbox\n");
}

TEST_F(PanelUtility, FailureWithoutAWordIsReportedWithEmptyText)
{
    const Observed seen = observe([] { return run_utility_path(helper, "exit", "2", nullptr); });

    EXPECT_EQ(seen.result, 2);
    EXPECT_EQ(seen.err, failed);
    EXPECT_EQ(seen.out, failed);
}

TEST_F(PanelUtility, MissingUtilityIsReportedWith255)
{
    const Observed seen = observe([] { return run_utility_path("/nonexistent/utility", nullptr); });

    EXPECT_EQ(seen.result, 255);
    EXPECT_EQ(seen.err, "/nonexistent/utility execution failed:\n"
                        "fork_execv: execv(\"/nonexistent/utility\") failed: No such file or directory\n");
}

TEST_F(PanelUtility, KilledUtilityIsReportedAndLogged)
{
    const Observed seen = observe([] { return run_utility_path(helper, "signal", "9", nullptr); });

    EXPECT_EQ(seen.result, -1);
    EXPECT_EQ(seen.err, failed);
    EXPECT_NE(log.take_one().find("killed by signal 9"), std::string::npos);
}

TEST_F(PanelUtility, QuietRunLeavesTheFailureToTheCaller)
{
    const Observed seen = observe([] {
        return exec_utility(helper, Orders({"out", "9", "err", "9", "exit", "3"}), true);
    });

    EXPECT_EQ(seen.result, 3);
    EXPECT_EQ(seen.out, "");
    EXPECT_EQ(seen.err, "");
}

TEST_F(PanelUtility, ArgumentsFollowThePathInTheirOrder)
{
    const Observed seen =
        observe([] { return run_utility_path(helper, "argv", "one", "", "three", nullptr); });

    EXPECT_EQ(seen.err, std::string(helper) + "\nargv\none\n\nthree\n" + failed);
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
    const Observed seen = observe([] {
        return run_utility_path(helper, "argv", NINETY, "0", "1", "2", "3", "4", "5", "6", "7", nullptr);
    });

    EXPECT_EQ(seen.err, argument_list(98));
}

TEST_F(PanelUtility, FurtherArgumentsAreDroppedSilently)
{
    const Observed hundred = observe([] {
        return run_utility_path(helper, "argv", NINETY, "0", "1", "2", "3", "4", "5", "6", "7", "8", nullptr);
    });
    const Observed more = observe([] { return run_utility_path(helper, "argv", NINETY, TEN, TEN, nullptr); });

    EXPECT_EQ(hundred.err, argument_list(98));
    EXPECT_EQ(more.err, argument_list(98));
}

TEST_F(PanelUtility, NameWithASlashIsRefused)
{
    const std::string text = "Utility name 'bin/sh' is invalid. Use only utility name without path.\n";
    const char *const argv[] = {"sh", nullptr};

    for (const Observed &seen : {observe([] { return run_panel_utility("bin/sh", nullptr); }),
                                 observe([&] { return run_panel_utility_argv("bin/sh", argv); })}) {
        EXPECT_EQ(seen.result, -1);
        EXPECT_EQ(seen.err, text);
        EXPECT_EQ(seen.out, text);
    }
}

TEST_F(PanelUtility, NameTooLongForAPathFailsLikeOneThatCannotBeExecuted)
{
    const std::string name(5000, 'n');
    const std::string path = "/opt/qsx/admin/sbin/" + name;
    const Observed seen = observe([&] { return run_panel_utility(name.c_str(), nullptr); });

    EXPECT_EQ(seen.result, 255);
    EXPECT_EQ(seen.err,
              path + " execution failed:\nfork_execv: execv(\"" + path + "\") failed: File name too long\n");
}

TEST_F(PanelUtility, PathTooLongIsNotCutToAnotherProgram)
{
    /* Cut at 4095 bytes, this would be the path of the shell. */
    const std::string root = "/usr/lib/kolmo-9.0/";
    const std::string program = "../../../bin/sh";
    const std::string name =
        "../../.." + std::string(4095 - root.size() - program.size(), '/') + program.substr(8) + "-longer";
    const Observed seen = observe([&] { return run_lib_utility(name.c_str(), "-c", "exit 7", nullptr); });

    EXPECT_EQ(seen.result, 255);
    EXPECT_NE(seen.err.find("File name too long"), std::string::npos);
}

} // namespace

} // namespace kolmo::testing
