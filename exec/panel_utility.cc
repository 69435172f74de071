#include "exec/panel_utility.h"

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "common/owned.h"
#include "common/report_error.h"
#include "common/text.h"
#include "exec/child_output.h"

namespace kolmo
{

namespace
{

/* Fixed: the configuration file's PRODUCT_ROOT_D does not move the utilities. */
constexpr char product_root[] = "/opt/qsx";
constexpr char library_root[] = "/usr/lib/kolmo-9.0";

/* The path as argument 0, up to 99 arguments, and the closing null. */
constexpr std::size_t vector_size = 101;

bool is_bare_name(const char *name)
{
    if (std::strchr(name, '/') == nullptr)
        return true;
    report_error(0, 0, "Utility name '%s' is invalid. Use only utility name without path.", name);
    return false;
}

OwnedText panel_utility_path(const char *name)
{
    return OwnedText(xasprintf("%s/admin/sbin/%s", product_root, name));
}

void report_failed_run(const char *path, const char *output, const char *errors)
{
    if (output != nullptr)
        (void)std::fputs(output, stderr);
    if (errors != nullptr)
        report_error(0, 0, "%s execution failed:\n%s", path, errors);
    else
        report_error(0, 0, "%s execution failed (no output)", path);
}

} // namespace

int exec_utility(const char *path, const char *const argv[], bool quiet)
{
    char *out = nullptr;
    char *err = nullptr;
    const int result = fork_execv_getouterr(&out, &err, path, argv);
    const OwnedText output(out);
    const OwnedText errors(err);

    if (result != 0 && !quiet)
        report_failed_run(path, output.get(), errors.get());
    return result;
}

int vrun_utility_path(const char *path, std::va_list arguments)
{
    const char *argv[vector_size] = {path};

    for (std::size_t i = 1; i < vector_size - 1; i++) {
        argv[i] = va_arg(arguments, const char *);
        if (argv[i] == nullptr)
            break;
    }
    return exec_utility(path, argv, false);
}

int run_utility_path(const char *path, ...)
{
    std::va_list arguments;

    va_start(arguments, path);
    const int result = vrun_utility_path(path, arguments);
    va_end(arguments);
    return result;
}

int run_lib_utility(const char *name, ...)
{
    const OwnedText path(xasprintf("%s/%s", library_root, name));
    std::va_list arguments;

    va_start(arguments, name);
    const int result = vrun_utility_path(path.get(), arguments);
    va_end(arguments);
    return result;
}

int run_panel_utility(const char *name, ...)
{
    std::va_list arguments;

    if (!is_bare_name(name))
        return -1;
    const OwnedText path = panel_utility_path(name);
    va_start(arguments, name);
    const int result = vrun_utility_path(path.get(), arguments);
    va_end(arguments);
    return result;
}

int run_panel_utility_argv(const char *name, const char *const argv[])
{
    if (!is_bare_name(name))
        return -1;
    return exec_utility(panel_utility_path(name).get(), argv, false);
}

} // namespace kolmo
