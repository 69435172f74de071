/*
 * panel_utility: run the panel's administrative utilities and report the ones that fail.
 *
 * All runners return what fork_execv_getouterr gives: the exit code, 0 to 255, or -1; success is 0 only.
 * Standard input is inherited.  What a successful run has written is dropped.  After one that fails, its
 * standard output is written to standard error as it is, and one report follows through report_error
 * (standard error and standard output): "%s execution failed:\n%s" (path, its standard error) or, when that
 * was never read, "%s execution failed (no output)".  A utility that cannot be executed is such a failure
 * too, with the result 255.  What else is logged or printed, and what ends this process: child_output.h.
 *
 * Arguments are texts, closed by a null; at most 99 reach the utility, further ones are dropped without a
 * word.  A path that exceeds the kernel's 4096 bytes is not cut to another one but fails like a utility that
 * cannot be executed, with ENAMETOOLONG (execve(2)).
 */
#pragma once

#include <cstdarg>

namespace kolmo
{

/*
 * Run a utility of the panel, "/opt/qsx/admin/sbin/" + name; it gets that path as its argument 0.
 *
 * A name with a '/' is refused with a report and -1, and nothing is started.
 */
[[nodiscard, gnu::sentinel]] int run_panel_utility(const char *name, ...);

/* The same with the whole argument vector, entry 0 included, passed as it is; it has no limit of 99. */
[[nodiscard]] int run_panel_utility_argv(const char *name, const char *const argv[]);

/* Run a utility of the panel's library, "/usr/lib/kolmo-9.0/" + name; the name may lead into subfolders. */
[[nodiscard, gnu::sentinel]] int run_lib_utility(const char *name, ...);

/* Run the program with this full path. */
[[nodiscard, gnu::sentinel]] int run_utility_path(const char *path, ...);

/* The same with an argument list, of which va_end remains the caller's. */
[[nodiscard]] int vrun_utility_path(const char *path, std::va_list arguments);

/* Run the program with this full path and argument vector; `quiet`: a failure is the caller's to report. */
[[nodiscard]] int exec_utility(const char *path, const char *const argv[], bool quiet);

} // namespace kolmo
