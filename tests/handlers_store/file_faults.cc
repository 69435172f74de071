#include "tests/handlers_store/file_faults.h"

#include <cerrno>
#include <cstdio>

#include <grp.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

namespace kolmo::testing
{

namespace
{

FileFaults *living = nullptr;

std::string octal(mode_t mode)
{
    char text[16];

    (void)std::snprintf(text, sizeof text, "%04o", static_cast<unsigned int>(mode));
    return text;
}

/* Whether a call has to fail; without a FileFaults none does. */
bool fails(const char *function, const std::string &arguments = {})
{
    return living != nullptr && living->fails(function, arguments);
}

} // namespace

FileFaults::FileFaults()
{
    EXPECT_EQ(living, nullptr) << "two at a time";
    living = this;
}

FileFaults::~FileFaults()
{
    living = nullptr;
}

bool FileFaults::fails(const std::string &function, const std::string &arguments)
{
    const auto fault = errors_.find(function);

    if (!arguments.empty())
        calls_.push_back(function + ' ' + arguments);
    if (fault == errors_.end())
        return false;
    if (fault->second != 0)
        errno = fault->second;
    return true;
}

} // namespace kolmo::testing

using kolmo::testing::fails;
using kolmo::testing::octal;

extern "C" {

int __real_stat(const char *path, struct stat *status);
int __real_mkdir(const char *path, mode_t mode);
char *__real_dirname(char *path);
int __real_sqlite3_exec(sqlite3 *connection, const char *sql, sqlite3_callback callback, void *argument,
                        char **error);

group *__wrap_getgrnam(const char *name)
{
    static char group_name[] = "popuser";
    static group popuser = {group_name, nullptr, 4242, nullptr};

    if (fails("getgrnam", name) || std::string(name) != group_name)
        return nullptr;
    return &popuser;
}

int __wrap_chown(const char *path, uid_t user, gid_t group)
{
    const std::string arguments =
        std::string(path) + ' ' + std::to_string(user) + ' ' + std::to_string(group);

    return fails("chown", arguments) ? -1 : 0;
}

int __wrap_chmod(const char *path, mode_t mode)
{
    return fails("chmod", std::string(path) + ' ' + octal(mode)) ? -1 : 0;
}

int __wrap_stat(const char *path, struct stat *status)
{
    return fails("stat") ? -1 : __real_stat(path, status);
}

int __wrap_mkdir(const char *path, mode_t mode)
{
    return fails("mkdir", std::string(path) + ' ' + octal(mode)) ? -1 : __real_mkdir(path, mode);
}

char *__wrap_dirname(char *path)
{
    return fails("dirname") ? nullptr : __real_dirname(path);
}

/* A failure for which SQLite has no text. */
int __wrap_sqlite3_exec(sqlite3 *connection, const char *sql, sqlite3_callback callback, void *argument,
                        char **error)
{
    if (kolmo::testing::living != nullptr)
        kolmo::testing::living->note_script(sql);
    return fails("sqlite3_exec") ? SQLITE_ERROR
                                 : __real_sqlite3_exec(connection, sql, callback, argument, error);
}

} // extern "C"
