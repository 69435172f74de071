/* The runner of utilities: which program is run, with which arguments, and what no program does on demand. */
#include "exec/panel_utility.h"

#include <cstdarg>
#include <string>

#include "tests/exec/exec_support.h"
#include "tests/exec/process_faults.h"

namespace kolmo::testing
{

namespace
{

using PanelUtilityFaults = ExecTest;

[[gnu::sentinel]] int run_list(const char *path, ...)
{
    std::va_list arguments;

    va_start(arguments, path);
    const int result = vrun_utility_path(path, arguments);
    va_end(arguments);
    return result;
}

/* The program as it was to be executed, and the empty report of its failure. */
std::string shown_as(const std::string &path, const std::string &arguments)
{
    return path + '\n' + arguments + path + " execution failed:\n";
}

TEST_F(PanelUtilityFaults, PanelUtilityIsRunFromTheAdministrationDirectory)
{
    const ExecvShown shown;
    const Observed seen =
        observe([] { return run_panel_utility("mail_responders_control", "--init-db", nullptr); });

    EXPECT_EQ(seen.result, 1);
    EXPECT_EQ(seen.err, shown_as("/opt/qsx/admin/sbin/mail_responders_control",
                                 "[/opt/qsx/admin/sbin/mail_responders_control]\n[--init-db]\n"));
}

TEST_F(PanelUtilityFaults, ArgumentVectorOfThePanelUtilityIsPassedAsItIs)
{
    const ExecvShown shown;
    const char *const argv[] = {"own name", "one", "two", nullptr};
    const Observed seen = observe([&] { return run_panel_utility_argv("utility", argv); });

    EXPECT_EQ(seen.result, 1);
    EXPECT_EQ(seen.err, shown_as("/opt/qsx/admin/sbin/utility", "[own name]\n[one]\n[two]\n"));
}

TEST_F(PanelUtilityFaults, LibraryUtilityIsRunFromItsDirectoryWithoutANameCheck)
{
    const ExecvShown shown;
    const Observed seen = observe([] { return run_lib_utility("sub/utility", "one", nullptr); });

    EXPECT_EQ(seen.result, 1);
    EXPECT_EQ(seen.err,
              shown_as("/usr/lib/kolmo-9.0/sub/utility", "[/usr/lib/kolmo-9.0/sub/utility]\n[one]\n"));
}

TEST_F(PanelUtilityFaults, PathIsRunAsItStandsByBothRunners)
{
    const ExecvShown shown;

    for (const Observed &seen : {observe([] { return run_utility_path("/some/path", "one", nullptr); }),
                                 observe([] { return run_list("/some/path", "one", nullptr); })}) {
        EXPECT_EQ(seen.result, 1);
        EXPECT_EQ(seen.err, shown_as("/some/path", "[/some/path]\n[one]\n"));
    }
}

TEST_F(PanelUtilityFaults, NameWithASlashStartsNothing)
{
    const char *const argv[] = {"sh", nullptr};
    const ForkCount forks;

    EXPECT_EQ(observe([] { return run_panel_utility("/bin/sh", nullptr); }).result, -1);
    EXPECT_EQ(observe([&] { return run_panel_utility_argv("sh/", argv); }).result, -1);
    EXPECT_EQ(forks.count(), 0);
}

TEST_F(PanelUtilityFaults, FailureWithOutputThatWasNeverReadIsReportedAsNoOutput)
{
    const Fault fault(Call::select, 1, 0, await_end);
    const Observed seen = observe([] { return run_utility_path(helper, "out", "2", "exit", "3", nullptr); });

    EXPECT_EQ(seen.result, 3);
    EXPECT_EQ(seen.err, std::string(helper) + " execution failed (no output)\n");
    EXPECT_EQ(seen.out, seen.err);
}

} // namespace

} // namespace kolmo::testing
