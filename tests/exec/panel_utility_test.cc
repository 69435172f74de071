/* The runners of utilities: real programs by path, and which program is run, with which arguments. */
#include "exec/panel_utility.h"

#include <cstdarg>
#include <string>

#include "tests/exec/exec_support.h"
#include "tests/exec/process_faults.h"

namespace kolmo::testing
{

namespace
{

using PanelUtility = ExecTest;

const std::string failed = std::string(helper) + " execution failed:\n";

TEST_F(PanelUtility, SuccessPrintsNothingAndAFailureItsOutputUnchangedAndThenTheReport)
{
    const struct {
        int (*run)();
        int result;
        std::string output;
        std::string report;
    } rows[] = {
        {[] { return run_utility_path(helper, "out", "100", "err", "100", nullptr); }, 0, "", ""},
        {[] { return run_utility_path(helper, "say", "no such mailbox", "out", "4", "exit", "1", nullptr); },
         1, "oooo", failed + "no such mailbox\n"},
        {[] { return run_utility_path(helper, "exit", "2", nullptr); }, 2, "", failed},
        {[] { return run_utility_path("/nonexistent/utility", nullptr); }, 255, "",
         "/nonexistent/utility execution failed:\n"
         "fork_execv: execv(\"/nonexistent/utility\") failed: No such file or directory\n"},
        {[] { return run_utility_path(helper, "argv", "one", "", "three", nullptr); }, 1,
         std::string(helper) + "\nargv\none\n\nthree\n", failed},
    };

    for (const auto &row : rows) {
        const Observed seen = observe(row.run);

        EXPECT_EQ(seen.result, row.result);
        EXPECT_EQ(seen.err, row.output + row.report);
        EXPECT_EQ(seen.out, row.report);
    }
}

TEST_F(PanelUtility, KilledUtilityIsReportedAndLogged)
{
    const Observed seen = observe([] { return run_utility_path(helper, "signal", "9", nullptr); });

    EXPECT_EQ(seen.result, -1);
    EXPECT_EQ(seen.err, failed);
    EXPECT_NE(log.take_one().find("killed by signal 9"), std::string::npos);
}

TEST_F(PanelUtility, FailureWithOutputThatWasNeverReadIsReportedAsNoOutput)
{
    const Fault fault(Call::select, 1, 0, await_end);
    const Observed seen = observe([] { return run_utility_path(helper, "out", "2", "exit", "3", nullptr); });

    EXPECT_EQ(seen.result, 3);
    EXPECT_EQ(seen.err, std::string(helper) + " execution failed (no output)\n");
    EXPECT_EQ(seen.out, seen.err);
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

TEST_F(PanelUtility, NinetyNineArgumentsAreTakenAndFurtherOnesDroppedSilently)
{
    int (*const runs[])() = {
        [] {
            return run_utility_path(helper, "argv", NINETY, "0", "1", "2", "3", "4", "5", "6", "7", nullptr);
        },
        [] {
            return run_utility_path(helper, "argv", NINETY, "0", "1", "2", "3", "4", "5", "6", "7", "8",
                                    nullptr);
        },
        [] { return run_utility_path(helper, "argv", NINETY, TEN, TEN, nullptr); },
    };

    for (int (*const run)() : runs)
        EXPECT_EQ(observe(run).err, argument_list(98));
}

[[gnu::sentinel]] int run_list(const char *path, ...)
{
    std::va_list arguments;

    va_start(arguments, path);
    const int result = vrun_utility_path(path, arguments);
    va_end(arguments);
    return result;
}

TEST_F(PanelUtility, EachRunnerHasItsOwnFolderAndArguments)
{
    static const char *const argv[] = {"own name", "one", "two", nullptr};
    const std::string panel = "/opt/qsx/admin/sbin/";
    const std::string library = "/usr/lib/kolmo-9.0/";
    const ExecvShown shown;
    const struct {
        int (*run)();
        std::string path;
        std::string arguments;
    } rows[] = {
        {[] { return run_panel_utility("mail_responders_control", "--init-db", nullptr); },
         panel + "mail_responders_control", '[' + panel + "mail_responders_control]\n[--init-db]\n"},
        {[] { return run_panel_utility_argv("utility", argv); }, panel + "utility",
         "[own name]\n[one]\n[two]\n"},
        {[] { return run_lib_utility("sub/utility", "one", nullptr); }, library + "sub/utility",
         '[' + library + "sub/utility]\n[one]\n"},
        {[] { return run_utility_path("/some/path", "one", nullptr); }, "/some/path",
         "[/some/path]\n[one]\n"},
        {[] { return run_list("/some/path", "one", nullptr); }, "/some/path", "[/some/path]\n[one]\n"},
    };

    for (const auto &row : rows) {
        const Observed seen = observe(row.run);

        EXPECT_EQ(seen.result, 1);
        EXPECT_EQ(seen.err, row.path + '\n' + row.arguments + row.path + " execution failed:\n");
    }
}

TEST_F(PanelUtility, NameWithASlashIsRefusedAndNothingStarted)
{
    static const char *const argv[] = {"sh", nullptr};
    const ForkCount forks;
    const struct {
        int (*run)();
        const char *name;
    } rows[] = {{[] { return run_panel_utility("/bin/sh", nullptr); }, "/bin/sh"},
                {[] { return run_panel_utility_argv("sh/", argv); }, "sh/"}};

    for (const auto &row : rows) {
        const Observed seen = observe(row.run);

        EXPECT_EQ(seen.result, -1);
        EXPECT_EQ(seen.err, std::string("Utility name '") + row.name +
                                "' is invalid. Use only utility name without path.\n");
        EXPECT_EQ(seen.out, seen.err);
    }
    EXPECT_EQ(forks.count(), 0);
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
